#pragma once

#include "process/managed_process.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/process/child.h"
#include "windows/process/console_delivery.h"

#include <gtest/gtest.h>

#include <QStringList>
#include <QTimer>

#include <memory>

namespace ruvo {

/// One supervised process called "child", and what it signals.
class ManagedProcessTest : public ::testing::Test
{
protected:
    ManagedProcessTest()
    {
        const ManagedProcess *source = process.get();
        QObject::connect(source, &ManagedProcess::processStarted, [this](const QString &id) { add(id, "started"); });
        QObject::connect(source, &ManagedProcess::processFinished,
                         [this](const QString &id, int code) { add(id, "finished " + QString::number(code)); });
        QObject::connect(source, &ManagedProcess::processError,
                         [this](const QString &id, const QString &text) { add(id, "error " + text); });
        QObject::connect(source, &ManagedProcess::stdoutReady, [this](const QString &id, const QByteArray &data) {
            add(id, "stdout " + QString::fromUtf8(data).trimmed());
        });
        QObject::connect(source, &ManagedProcess::stderrReady, [this](const QString &id, const QByteArray &data) {
            add(id, "stderr " + QString::fromUtf8(data).trimmed());
        });
    }
    ~ManagedProcessTest() override
    {
        if (process)
            process->kill();
    }

    bool start(const QStringList &script, const QJsonObject &more = {})
    {
        return process->start(test::childSpec("child", script, more));
    }
    /// Starts a child and waits until it has said "ready", which its script has to contain.
    bool startReady(const QStringList &script, const QJsonObject &more = {})
    {
        return start(script, more) && waitFor("stdout ready");
    }
    bool waitFor(const QString &signal)
    {
        return test::waitUntil([&] { return heard.contains(signal); });
    }
    qsizetype count(const QString &signal) const { return heard.count(signal); }

    /// A handle of the child that outlives the supervision.
    KernelHandle openChild() const
    {
        return KernelHandle(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION | PROCESS_TERMINATE, FALSE,
                                        static_cast<DWORD>(process->info().pid)));
    }
    static bool hasEnded(const KernelHandle &child, DWORD timeout = 15000)
    {
        return WaitForSingleObject(child.get(), timeout) == WAIT_OBJECT_0;
    }
    static DWORD exitCode(const KernelHandle &child)
    {
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeProcess(child.get(), &code));
        return code;
    }
    /// Neither the deadline of a stop nor a restart is pending.
    bool nothingIsPending() const
    {
        for (const QTimer *timer : process->findChildren<QTimer *>()) {
            if (timer->isActive())
                return false;
        }
        return true;
    }
    void expectNoRun() const
    {
        const ProcessInfo info = process->info();
        EXPECT_EQ(info.state, 0);
        EXPECT_EQ(info.pid, -1);
        EXPECT_EQ(info.processHandle, nullptr);
        EXPECT_EQ(info.threadHandle, nullptr);
        EXPECT_EQ(info.stdinWrite, nullptr);
        EXPECT_EQ(info.stdoutRead, nullptr);
        EXPECT_EQ(info.stderrRead, nullptr);
        EXPECT_FALSE(process->isRunning());
    }

    const test::ConsoleDelivery delivery;
    test::LogCapture log;
    std::unique_ptr<ManagedProcess> process = std::make_unique<ManagedProcess>("child");
    QStringList heard;

private:
    void add(const QString &id, const QString &what)
    {
        EXPECT_EQ(id, "child");
        heard.append(what);
    }
};

} // namespace ruvo
