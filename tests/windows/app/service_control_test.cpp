#include "windows/app/test_service.h"

#include "support/qt_printers.h"
#include "windows/support/child_process.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_IN_OWN_PROCESS(ServiceControl, reportsEveryStateOfALife)
{
    FakeServiceManager manager;
    Service service;
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, stopPending, stopped));
    EXPECT_EQ(manager.serviceName(), L"RuvoService");
    EXPECT_EQ(manager.handlerName(), L"RuvoService");
}

TEST_IN_OWN_PROCESS(ServiceControl, stopsOnceHoweverOftenItIsAsked)
{
    FakeServiceManager manager;
    Service service;
    Signal allSent;
    Service::self().setRunCallback([&] {
        Service::self().reportRunning();
        EXPECT_TRUE(allSent.wait());
        Service::self().reportStopped();
    });
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
        EXPECT_EQ(manager.control(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR});
        allSent.set();
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, stopPending, stopped));
    EXPECT_EQ(service.stopRequests, 1);
}

TEST_IN_OWN_PROCESS(ServiceControl, takesTheSystemsShutdownForAStop)
{
    FakeServiceManager manager;
    Service service;
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR});
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, stopPending, stopped));
}

TEST_IN_OWN_PROCESS(ServiceControl, answersEveryControl)
{
    FakeServiceManager manager;
    Service service;
    std::vector<DWORD> custom;
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
        for (const DWORD control : {0u, 2u, 3u, 6u, 13u, 127u, 256u, 1000u})
            EXPECT_EQ(manager.control(control), DWORD{ERROR_CALL_NOT_IMPLEMENTED}) << control;
        for (const DWORD control : {128u, 255u})
            EXPECT_EQ(manager.control(control), DWORD{ERROR_CALL_NOT_IMPLEMENTED}) << "without a callback";

        Service::self().setCustomControlCallback([&](DWORD control) { custom.push_back(control); });
        for (const DWORD control : {128u, 200u, 255u})
            EXPECT_EQ(manager.control(control), DWORD{NO_ERROR}) << control;
        for (const DWORD control : {127u, 256u})
            EXPECT_EQ(manager.control(control), DWORD{ERROR_CALL_NOT_IMPLEMENTED}) << control;

        Service::self().setCustomControlCallback([](DWORD) { throw std::runtime_error("no"); });
        EXPECT_EQ(manager.control(128), DWORD{ERROR_EXCEPTION_IN_SERVICE});
        Service::self().setCustomControlCallback([](DWORD) { throw 1; });
        EXPECT_EQ(manager.control(128), DWORD{ERROR_EXCEPTION_IN_SERVICE});

        EXPECT_EQ(service.stopRequests, 0);
        EXPECT_THAT(texts(manager), ElementsAre(startPending, running)) << "no control but a stop is reported";
        manager.control(SERVICE_CONTROL_STOP);
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(custom, ElementsAre(128u, 200u, 255u));
}

TEST_IN_OWN_PROCESS(ServiceControl, setsTheStopEventEvenIfTheStopCallbackRaises)
{
    std::vector<HANDLE> events;
    const test::ImportRedirection<IMPORT(CreateEventW)> createEvent([&](auto... arguments) {
        events.push_back(createEvent.real(arguments...));
        return events.back();
    });
    FakeServiceManager manager;
    Service service;
    ASSERT_FALSE(events.empty());
    const HANDLE stopEvent = events.front();
    Service::self().setStopCallback([&] {
        service.stopRequested.set();
        throw std::runtime_error("no");
    });
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(WaitForSingleObject(stopEvent, 0), DWORD{WAIT_TIMEOUT});
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    });
    EXPECT_EQ(Service::self().run(), 0);
    script.join();
    EXPECT_EQ(WaitForSingleObject(stopEvent, 0), DWORD{WAIT_OBJECT_0});
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, stopPending, stopped));
}

TEST_IN_OWN_PROCESS(ServiceControl, reportsARunCallbackThatRaises)
{
    FakeServiceManager manager;
    Service service;
    Service::self().setRunCallback([] {
        Service::self().reportRunning();
        throw std::runtime_error("no");
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, failed));
}

TEST_IN_OWN_PROCESS(ServiceControl, reportsARunCallbackThatRaisesWhatIsNoException)
{
    FakeServiceManager manager;
    Service service;
    Service::self().setRunCallback([] { throw 1; });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(texts(manager), ElementsAre(startPending, failed));
}

TEST_IN_OWN_PROCESS(ServiceControl, doesNothingWithoutAControlHandler)
{
    FakeServiceManager manager;
    manager.refuseHandler(ERROR_NOT_ENOUGH_MEMORY);
    Service service;
    bool ran = false;
    Service::self().setRunCallback([&] { ran = true; });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_FALSE(ran);
    EXPECT_THAT(texts(manager), IsEmpty());
}

TEST_IN_OWN_PROCESS(ServiceControl, reportsNothingAfterStopped)
{
    FakeServiceManager manager;
    Service service;
    Signal lateControls;
    Service::self().setRunCallback([&] {
        Service::self().reportRunning();
        Service::self().reportStopped();
        EXPECT_TRUE(lateControls.wait());
        Service::self().reportRunning();
        Service::self().reportStopped();
        throw std::runtime_error("no");
    });
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_STOPPED));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
        EXPECT_EQ(manager.control(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
        lateControls.set();
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, stopped));
}

TEST_IN_OWN_PROCESS(ServiceControl, takesAStopInTheInstantOfTheRunningReport)
{
    FakeServiceManager manager;
    Service service;
    std::future<std::optional<DWORD>> stop;
    manager.onReport([&](const SERVICE_STATUS &status) {
        if (status.dwCurrentState == SERVICE_RUNNING)
            stop = manager.post(SERVICE_CONTROL_STOP);
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_EQ(stop.get(), DWORD{NO_ERROR});
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, stopPending, stopped));
}

TEST_IN_OWN_PROCESS(ServiceControl, doesNotTakeAStopBackByReportingThatItRuns)
{
    FakeServiceManager manager;
    Service service;
    Service::self().setRunCallback([&] {
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
        Service::self().reportRunning();
        Service::self().reportStopped();
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(texts(manager),
                ElementsAre(startPending, "3 type 16 accepts 5 exit 0/0 checkpoint 2 hint 30000", stopped));
}

TEST_IN_OWN_PROCESS(ServiceControl, callsNobodyAfterTheCallbacksWereCleared)
{
    FakeServiceManager manager;
    Service service;
    std::atomic<int> customControls = 0;
    Service::self().setCustomControlCallback([&](DWORD) { ++customControls; });
    Signal cleared;
    Signal lateControlsSent;
    Service::self().setRunCallback([&] {
        Service::self().reportRunning();
        Service::self().clearControlCallbacks();
        cleared.set();
        EXPECT_TRUE(lateControlsSent.wait());
        Service::self().reportStopped();
    });
    std::jthread script([&] {
        EXPECT_TRUE(cleared.wait());
        EXPECT_EQ(manager.control(128), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
        lateControlsSent.set();
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_EQ(customControls, 0);
    EXPECT_EQ(service.stopRequests, 0);
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, stopPending, stopped));
}

TEST_IN_OWN_PROCESS(ServiceControl, waitsForACallbackThatRunsWhileTheyAreCleared)
{
    FakeServiceManager manager;
    Service service;
    Signal inside;
    Signal cleared;
    std::atomic<bool> callbackDone = false;
    Service::self().setCustomControlCallback([&](DWORD) {
        inside.set();
        EXPECT_FALSE(cleared.wait(wrongEventTime));
        callbackDone = true;
    });
    Service::self().setRunCallback([&] {
        Service::self().reportRunning();
        EXPECT_TRUE(inside.wait());
        Service::self().clearControlCallbacks();
        EXPECT_TRUE(callbackDone);
        cleared.set();
        Service::self().reportStopped();
    });
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(200), DWORD{NO_ERROR});
    });
    EXPECT_EQ(Service::self().run(), 0);
}

/// A service whose dispatcher fails with the error that it is given.
const ChildProgram s_refusedService("refused-service", [](const QStringList &arguments) {
    FakeServiceManager manager;
    manager.refuseDispatcher(arguments.first().toUInt());
    WindowsService::initialize(L"RuvoService", L"Ruvo Proxy Client Service");
    WindowsService::instance().setRunCallback([] { std::abort(); });
    return WindowsService::instance().run();
});

TEST(ServiceControl, explainsHowToStartItWhenNoManagerDid)
{
    const test::ChildResult child = test::runChild("refused-service", {"1063"});
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.output, "");
    EXPECT_EQ(child.errors, "ERROR: ruvod must be run as a Windows Service.\n"
                            "To register the service, run: ruvod.exe --register\n"
                            "Then start it via Services or: sc start RuvoService\n");
}

TEST(ServiceControl, saysWhyTheDispatcherFailed)
{
    const test::ChildResult child = test::runChild("refused-service", {"1056"});
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.output, "");
    EXPECT_EQ(child.errors, "Failed to start service dispatcher: error 1056\n");
}

} // namespace
} // namespace ruvo
