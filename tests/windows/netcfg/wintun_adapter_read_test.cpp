// The reader thread: what it hands on, how it ends, and how it is ended.

#include "netcfg/wintun_adapter.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/netcfg/fake_wintun.h"
#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

#include <gtest/gtest.h>

#include <process.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::FakeWintun;
using test::Signal;
using test::waitUntil;

class WintunAdapterRead : public testing::Test
{
protected:
    void SetUp() override
    {
        m_adapter.emplace();
        ASSERT_TRUE(m_adapter->load(FakeWintun::path));
        ASSERT_TRUE(m_adapter->createAdapter(L"tun", L"SocksTunnel"));
        ASSERT_TRUE(m_adapter->startSession(0x20000));
        m_log.clear();
    }

    bool ends()
    {
        return waitUntil([this] { return !m_adapter->isReading(); });
    }
    qsizetype readers() const { return m_fake.count("WintunGetReadWaitEvent 5e55"); }
    bool waitForReader(qsizetype count = 1)
    {
        return waitUntil([this, count] { return readers() == count; });
    }

    test::LogCapture m_log;
    FakeWintun m_fake;
    std::optional<WintunAdapter> m_adapter;
};

TEST_F(WintunAdapterRead, handsEachPacketOnAndGivesItBackToTheRing)
{
    QByteArrayList packets; // written by the reader, read after it ended
    m_adapter->setPacketCallback([&](const std::uint8_t *data, std::uint32_t size) {
        packets.append(QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size)));
    });
    const QByteArray largest(0xFFFF, 'x');
    m_fake.deliver("one");
    m_adapter->startReading();
    m_fake.deliver("two");
    m_fake.deliver(largest);
    EXPECT_TRUE(waitUntil([this] { return m_fake.released().size() == 3; }));
    m_adapter->stopReading();
    EXPECT_EQ(packets, (QByteArrayList{"one", "two", largest}));
    EXPECT_EQ(m_fake.released(), packets);
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(WintunAdapterRead, isOnAThreadOfItsOwn)
{
    std::atomic<DWORD> thread = 0;
    m_adapter->setPacketCallback([&](const std::uint8_t *, std::uint32_t) { thread = GetCurrentThreadId(); });
    m_adapter->startReading();
    m_fake.deliver("one");
    EXPECT_TRUE(waitUntil([&] { return thread != 0; }));
    EXPECT_NE(thread, GetCurrentThreadId());
}

TEST_F(WintunAdapterRead, givesPacketsBackThatNobodyWants)
{
    m_adapter->startReading();
    m_fake.deliver("one");
    EXPECT_TRUE(waitUntil([this] { return m_fake.released() == QByteArrayList{"one"}; }));
}

TEST_F(WintunAdapterRead, keepsAPacketOutOfTheRingUntilTheCallbackIsDoneWithIt)
{
    Signal inside;
    Signal goOn;
    m_adapter->setPacketCallback([&](const std::uint8_t *, std::uint32_t) {
        inside.set();
        goOn.wait();
    });
    m_adapter->startReading();
    m_fake.deliver("one");
    ASSERT_TRUE(inside.wait());
    EXPECT_EQ(m_fake.released(), QByteArrayList());
    goOn.set();
    EXPECT_TRUE(waitUntil([this] { return m_fake.released().size() == 1; }));
}

TEST_F(WintunAdapterRead, endsSilentlyWithTheSession)
{
    m_adapter->startReading();
    EXPECT_TRUE(m_adapter->isReading());
    m_fake.endReading(ERROR_HANDLE_EOF);
    EXPECT_TRUE(ends());
    EXPECT_EQ(m_log.lines(), QStringList());
    m_adapter->stopReading();
}

TEST_F(WintunAdapterRead, endsWithAWarningAtAnyOtherError)
{
    m_adapter->startReading();
    m_fake.endReading(ERROR_INVALID_DATA);
    EXPECT_TRUE(ends());
    m_adapter->stopReading();
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Packet read failed: 13"});
}

TEST_F(WintunAdapterRead, isOneThreadHoweverOftenItIsStarted)
{
    m_adapter->startReading();
    m_adapter->startReading();
    EXPECT_TRUE(waitForReader());
    m_adapter->stopReading();
    EXPECT_EQ(readers(), 1);
    EXPECT_FALSE(m_adapter->isReading());
}

TEST_F(WintunAdapterRead, staysDeadUntilItWasStopped)
{
    m_adapter->startReading();
    m_fake.endReading(ERROR_HANDLE_EOF);
    ASSERT_TRUE(ends());
    m_adapter->startReading();
    EXPECT_FALSE(m_adapter->isReading());

    m_adapter->stopReading();
    m_fake.endReading(ERROR_NO_MORE_ITEMS);
    m_adapter->startReading();
    EXPECT_TRUE(waitForReader(2));
    EXPECT_TRUE(m_adapter->isReading());
}

TEST_F(WintunAdapterRead, isStoppedWhileItWaits)
{
    m_adapter->startReading();
    ASSERT_TRUE(waitForReader());
    const auto start = std::chrono::steady_clock::now();
    m_adapter->stopReading();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_FALSE(m_adapter->isReading());
    m_adapter->stopReading(); // nothing is left to stop
}

TEST_F(WintunAdapterRead, isStoppedThoughPacketsKeepComing)
{
    std::atomic<int> packets = 0;
    m_adapter->setPacketCallback([&](const std::uint8_t *, std::uint32_t) {
        ++packets;
        m_fake.deliver("another");
    });
    m_adapter->startReading();
    m_fake.deliver("one");
    ASSERT_TRUE(waitUntil([&] { return packets > 100; }));
    m_adapter->stopReading();
    const int atTheEnd = packets;
    EXPECT_FALSE(m_adapter->isReading());
    EXPECT_EQ(packets, atTheEnd);
}

TEST_F(WintunAdapterRead, readsAgainAfterAStop)
{
    m_adapter->startReading();
    ASSERT_TRUE(waitForReader());
    m_adapter->stopReading();
    m_adapter->startReading(); // the quit event was reset: it waits
    ASSERT_TRUE(waitForReader(2));
    m_fake.deliver("one");
    EXPECT_TRUE(waitUntil([this] { return m_fake.released().size() == 1; }));
    EXPECT_TRUE(m_adapter->isReading());
}

TEST_F(WintunAdapterRead, cannotBeStoppedByItself)
{
    Signal refused;
    m_adapter->setPacketCallback([&](const std::uint8_t *, std::uint32_t) {
        try {
            m_adapter->stopReading();
        } catch (const std::system_error &error) {
            if (error.code() == std::errc::resource_deadlock_would_occur)
                refused.set();
        }
    });
    m_adapter->startReading();
    m_fake.deliver("one");
    EXPECT_TRUE(refused.wait());
    EXPECT_TRUE(ends());
    m_adapter->startReading(); // joins the thread that could not join itself
    EXPECT_TRUE(waitForReader(2));
    EXPECT_TRUE(m_adapter->isReading());
}

TEST_F(WintunAdapterRead, thatEndedByItselfGoesWithTheAdapter)
{
    m_adapter->setPacketCallback(
        [&](const std::uint8_t *, std::uint32_t) { EXPECT_THROW(m_adapter->stopReading(), std::system_error); });
    m_adapter->startReading();
    m_fake.deliver("one");
    EXPECT_TRUE(ends());
    m_adapter.reset();
}

TEST_F(WintunAdapterRead, looksAgainBeforeItSleepsOnlyWhilePacketsAreDense)
{
    std::mutex mutex;
    std::vector<int> looks; // how many there had been at each sleep
    const test::ImportRedirection<IMPORT(WaitForMultipleObjects)> wait([&](auto... arguments) {
        {
            const std::lock_guard lock(mutex);
            looks.push_back(m_fake.emptyReceives);
        }
        return wait.real(arguments...);
    });
    const auto looksAtSleep = [&](std::size_t number) {
        EXPECT_TRUE(waitUntil([&] {
            const std::lock_guard lock(mutex);
            return looks.size() >= number;
        }));
        const std::lock_guard lock(mutex);
        return looks.at(number - 1);
    };

    m_adapter->startReading();
    EXPECT_EQ(looksAtSleep(1), 1);
    m_fake.deliver("alone");
    EXPECT_EQ(looksAtSleep(2), 2);
    // They are dense if each takes less than 100 us, and the first has 2 s to come.
    m_fake.deliver("one of many", 20'000);
    EXPECT_GE(looksAtSleep(3), 4) << "it sleeps in the end, but not at once";
    EXPECT_EQ(m_fake.released().size(), 20'001);
    m_adapter->stopReading(); // no longer waits through this test
}

TEST_F(WintunAdapterRead, failsWithoutATraceIfThereCanBeNoThread)
{
    {
        const test::ImportRedirection<IMPORT(_beginthreadex)> noThread([](auto...) -> uintptr_t {
            errno = EAGAIN;
            return 0;
        });
        EXPECT_THROW(m_adapter->startReading(), std::system_error);
    }
    EXPECT_FALSE(m_adapter->isReading());
    m_adapter->stopReading();
    m_adapter->startReading();
    EXPECT_TRUE(m_adapter->isReading());
}

} // namespace
} // namespace ruvo
