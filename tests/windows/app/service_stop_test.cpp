#include "windows/app/test_service.h"

#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_IN_OWN_PROCESS(ServiceStop, letsTheFirstThreadWaitUntilTheDaemonIsGone)
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

TEST_IN_OWN_PROCESS(ServiceStop, letsTheFirstThreadWaitHalfAMinuteAtMost)
{
    FakeServiceManager manager;
    Service service;
    Service::self().setRunCallback([] { Service::self().reportStopped(); });
    test::CallJournal journal;
    journal.watch<IMPORT(WaitForSingleObject)>();
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_THAT(journal.lines().back(), testing::EndsWith(", 0x7530)")); // 30,000 ms
}

TEST_IN_OWN_PROCESS(ServiceStop, endsTheProcessWhereTheDaemonIsNotGoneAfterThat)
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

TEST_IN_OWN_PROCESS(ServiceStop, letsTheProcessGoOnWhereTheDaemonIsGone)
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

TEST_IN_OWN_PROCESS(ServiceStop, reportsAStopThatTakesLongEveryFiveSeconds)
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

TEST_IN_OWN_PROCESS(ServiceStop, givesAStopUpThatDoesNotEndWithinTwoMinutes)
{
    const HurriedReports hurried;
    FakeServiceManager manager(FakeServiceManager::Returns::whenStopped);
    Service service;
    Service::self().setRunCallback([&] {
        Service::self().reportRunning();
        EXPECT_TRUE(manager.waitUntilDispatcherReturned()); // which nothing else brings about
        Service::self().reportStopped();
    });
    std::jthread script([&] {
        EXPECT_TRUE(manager.waitForState(SERVICE_RUNNING));
        EXPECT_EQ(manager.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    });
    EXPECT_EQ(Service::self().run(), 0);
    EXPECT_EQ(hurried.waits, 24);
    EXPECT_EQ(texts(manager).back(), failed);
}

TEST_IN_OWN_PROCESS(ServiceStop, reportsNothingOfThatOnceItHasStopped)
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

TEST_IN_OWN_PROCESS(ServiceStop, stopsThoughNoThreadCanBeHadForThat)
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

} // namespace
} // namespace ruvo
