#include "windows/support/child_process.h"

#include "support/wait_until.h"

#include <QCoreApplication>
#include <QMap>

#include <gtest/gtest.h>

#include <string_view>
#include <utility>

namespace ruvo::test {

namespace {

constexpr char programOption[] = "--child-program";
constexpr char ownProcessOption[] = "--own-process";

/// A function, as programs register themselves before main.
QMap<QString, ChildProgram::Main> &programs()
{
    static QMap<QString, ChildProgram::Main> s_programs;
    return s_programs;
}

bool s_ownProcess = false;

QByteArray plainLineEnds(QByteArray text)
{
    return text.replace("\r\n", "\n");
}

} // namespace

ChildProgram::ChildProgram(const char *name, Main main)
{
    programs().insert(name, std::move(main));
}

std::optional<int> ChildProgram::runRequested(int argc, char **argv)
{
    if (argc < 3 || std::string_view(argv[1]) != programOption)
        return std::nullopt;
    const Main main = programs().value(argv[2]);
    if (!main)
        return std::nullopt;
    QStringList arguments;
    for (int i = 3; i < argc; ++i)
        arguments.append(QString::fromUtf8(argv[i]));
    return main(arguments);
}

ChildProcess::ChildProcess(const Command &command)
{
    m_process.start(command.path, command.arguments);
    EXPECT_TRUE(m_process.waitForStarted()) << m_process.errorString().toStdString();
}

ChildProcess::ChildProcess(const QString &program, const QStringList &arguments)
    : ChildProcess(Command{QCoreApplication::applicationFilePath(), QStringList{programOption, program} + arguments})
{}

ChildProcess ChildProcess::ofExecutable(const QString &path, const QStringList &arguments)
{
    return ChildProcess(Command{path, arguments});
}

ChildProcess::~ChildProcess()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(10000);
}

void ChildProcess::write(const QByteArray &text)
{
    m_process.write(text);
}

void ChildProcess::closeInput()
{
    m_process.closeWriteChannel();
}

std::optional<int> ChildProcess::waitForEnd(std::chrono::milliseconds timeout)
{
    const bool ended = waitUntil([this] { return m_process.state() == QProcess::NotRunning; }, timeout);
    if (!ended || m_process.exitStatus() != QProcess::NormalExit)
        return std::nullopt;
    return m_process.exitCode();
}

QByteArray ChildProcess::output()
{
    m_output += m_process.readAllStandardOutput();
    return plainLineEnds(m_output);
}

QByteArray ChildProcess::errors()
{
    m_errors += m_process.readAllStandardError();
    return plainLineEnds(m_errors);
}

ChildResult runChild(const QString &program, const QStringList &arguments)
{
    ChildProcess child(program, arguments);
    child.closeInput();
    const std::optional<int> status = child.waitForEnd();
    return {status, child.output(), child.errors()};
}

void runInOwnProcess(const char *test, void (*body)())
{
    if (s_ownProcess) {
        body();
        return;
    }
    // With another main function it would start itself, and so on.
    ASSERT_FALSE(QCoreApplication::arguments().contains(ownProcessOption)) << "the main function does not know it";
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QCoreApplication::applicationFilePath(),
                  {QStringLiteral("--gtest_filter=") + test, ownProcessOption});
    const bool ended = process.waitForFinished(50000);
    const QByteArray output = process.readAll();
    EXPECT_TRUE(ended) << "the test's process does not end";
    if (!ended) {
        process.kill();
        process.waitForFinished(10000);
    }
    EXPECT_TRUE(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0) << output.toStdString();
    // An empty run passes too.
    EXPECT_TRUE(output.contains("[  PASSED  ] 1 test.")) << output.toStdString();
}

bool isOwnProcessRequested(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]) == ownProcessOption)
            s_ownProcess = true;
    }
    return s_ownProcess;
}

} // namespace ruvo::test
