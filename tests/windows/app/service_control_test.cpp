#include "app/windows_service.h"

#include "support/qt_printers.h"
#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"
#include "windows/support/fake_service_manager.h"
#include "windows/support/signal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::ChildProgram;
using test::FakeServiceManager;
using test::Signal;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char startPending[] = "2 type 16 accepts 0 exit 0/0 checkpoint 1 hint 3000";
constexpr char running[] = "4 type 16 accepts 5 exit 0/0 checkpoint 0 hint 0";
constexpr char stopPending[] = "3 type 16 accepts 5 exit 0/0 checkpoint 1 hint 30000";
constexpr char stopped[] = "1 type 16 accepts 5 exit 0/0 checkpoint 0 hint 0";
constexpr char failed[] = "1 type 16 accepts 5 exit 1/0 checkpoint 0 hint 0";

/// How long something that must not happen is waited for.
constexpr auto wrongEventTime = 300ms;

std::vector<std::string> texts(const FakeServiceManager &manager)
{
    std::vector<std::string> texts;
    for (const SERVICE_STATUS &status : manager.reports())
        texts.push_back(test::reportText(status));
    return texts;
}

/// The service with a daemon that runs until it is asked to stop.
struct Service
{
    Service()
    {
        WindowsService::initialize(L"RuvoService", L"Ruvo Proxy Client Service");
        self().setStopCallback([this] {
            ++stopRequests;
            stopRequested.set();
        });
        self().setRunCallback([this] {
            self().reportRunning();
            EXPECT_TRUE(stopRequested.wait());
            self().reportStopped();
        });
    }
    static WindowsService &self() { return WindowsService::instance(); }

    std::atomic<int> stopRequests = 0;
    Signal stopRequested;
};

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

TEST_IN_OWN_PROCESS(ServiceControl, letsTheFirstThreadWaitUntilTheDaemonIsGone)
{
    FakeServiceManager manager(FakeServiceManager::Returns::whenStopped);
    Service service;
    Signal runReturned;
    std::atomic<bool> daemonGone = false;
    Service::self().setRunCallback([&] {
        Service::self().reportRunning();
        Service::self().reportStopped();
        EXPECT_TRUE(manager.waitUntilDispatcherReturned());
        EXPECT_FALSE(runReturned.wait(wrongEventTime));
        daemonGone = true;
    });
    EXPECT_EQ(Service::self().run(), 0);
    runReturned.set();
    EXPECT_TRUE(daemonGone);
}

TEST_IN_OWN_PROCESS(ServiceControl, letsTheFirstThreadWaitHalfAMinuteAtMost)
{
    FakeServiceManager manager;
    Service service;
    Service::self().setRunCallback([] { Service::self().reportStopped(); });
    test::CallJournal journal;
    journal.watch<IMPORT(WaitForSingleObject)>();
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(journal.lines().back(), testing::EndsWith(", 0x7530)")); // 30,000 ms
}

TEST_IN_OWN_PROCESS(ServiceControl, endsTheProcessWhereTheDaemonIsNotGoneAfterThat)
{
    Signal runReturned;
    FakeServiceManager manager(FakeServiceManager::Returns::whenStopped);
    Service service;
    Service::self().setRunCallback([&] {
        Service::self().reportStopped();
        EXPECT_TRUE(runReturned.wait());
    });
    test::CallJournal journal;
    using Wait = test::ImportRedirection<IMPORT(WaitForSingleObject)>;
    journal.watch<IMPORT(WaitForSingleObject)>([real = Wait::current()](HANDLE object, DWORD time) {
        return time == 30000 ? DWORD{WAIT_TIMEOUT} : real(object, time);
    });
    journal.watch<IMPORT(TerminateProcess)>([](auto...) { return TRUE; });
    EXPECT_EQ(Service::self().run(), 1);
    const std::string self = test::callText(GetCurrentProcess());
    EXPECT_EQ(journal.count("TerminateProcess(" + self + ", 1)"), 1u);
    runReturned.set();
}

TEST_IN_OWN_PROCESS(ServiceControl, letsTheProcessGoOnWhereTheDaemonIsGone)
{
    FakeServiceManager manager;
    Service service;
    Service::self().setRunCallback([] { Service::self().reportStopped(); });
    test::CallJournal journal(test::CallJournal::Threads::all);
    journal.watch<IMPORT(TerminateProcess)>([](auto...) { return TRUE; });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(journal.lines(), IsEmpty());
}

/// The service reports a stop that takes long more often than it does by itself.
struct HurriedReports
{
    std::atomic<int> waits = 0;
    const test::ImportRedirection<IMPORT(WaitForSingleObject)> redirection{[this](HANDLE object, DWORD time) {
        if (time != 5000)
            return redirection.real(object, time);
        ++waits;
        return redirection.real(object, 50);
    }};
};

TEST_IN_OWN_PROCESS(ServiceControl, reportsAStopThatTakesLongEveryFiveSeconds)
{
    const HurriedReports hurried;
    FakeServiceManager manager;
    Service service;
    Signal third;
    std::atomic<int> pending = 0;
    manager.onReport([&](const SERVICE_STATUS &status) {
        if (status.dwCurrentState == SERVICE_STOP_PENDING && ++pending == 3)
            third.set();
    });
    Service::self().setRunCallback([&] {
        Service::self().reportRunning();
        EXPECT_TRUE(third.wait());
        Service::self().reportStopped();
    });
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    });
    EXPECT_EQ(Service::self().run(), 0);
    const std::vector<std::string> reports = texts(manager);
    ASSERT_GE(reports.size(), 6u); // a slow machine gives time for more
    EXPECT_THAT(std::vector(reports.begin(), reports.begin() + 5),
                ElementsAre(startPending, running, stopPending,
                            "3 type 16 accepts 5 exit 0/0 checkpoint 2 hint 30000",
                            "3 type 16 accepts 5 exit 0/0 checkpoint 3 hint 30000"));
    EXPECT_EQ(reports.back(), stopped);
    EXPECT_EQ(hurried.waits, pending); // of which the last was ended by the daemon's end
}

TEST_IN_OWN_PROCESS(ServiceControl, reportsNothingOfThatOnceItHasStopped)
{
    const HurriedReports hurried;
    FakeServiceManager manager;
    Service service;
    Service::self().setRunCallback([&] {
        Service::self().reportRunning();
        EXPECT_TRUE(service.stopRequested.wait());
        Service::self().reportStopped();
        std::this_thread::sleep_for(wrongEventTime);
    });
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_EQ(texts(manager).back(), stopped);
    EXPECT_GE(hurried.waits, 2);
}

TEST_IN_OWN_PROCESS(ServiceControl, stopsThoughNoThreadCanBeHadForThat)
{
    FakeServiceManager manager;
    Service service;
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    });
    const DWORD firstThread = GetCurrentThreadId();
    Service::self().setStopCallback([&] { // from here on
        EXPECT_EQ(GetCurrentThreadId(), firstThread);
        service.stopRequested.set();
    });
    test::CallJournal journal; // the service thread has been made by the dispatcher before
    journal.watch<IMPORT(_beginthreadex)>();
    journal.fail("_beginthreadex", ERROR_NOT_ENOUGH_MEMORY, 2);
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_EQ(journal.failed(), "_beginthreadex");
    EXPECT_THAT(texts(manager), ElementsAre(startPending, running, stopPending, stopped));
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
