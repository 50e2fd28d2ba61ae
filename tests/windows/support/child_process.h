#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <optional>

namespace ruvo::test {

/// Code of a test executable that runs as a program of its own, in a process that has no application object yet
/// and prints nothing by itself. Defined at namespace scope: `const ChildProgram s_x("x", [](...) { ... });`
class ChildProgram
{
public:
    using Main = std::function<int(const QStringList &arguments)>;
    ChildProgram(const char *name, Main main);

    /// The exit status of the program that this process's command line asks for, after it ran.
    static std::optional<int> runRequested(int argc, char **argv);
};

/// A child program that runs beside the test, with its output. Killed if it still runs at the end.
class ChildProcess
{
public:
    explicit ChildProcess(const QString &program, const QStringList &arguments = {});
    /// Another executable than this one.
    static ChildProcess ofExecutable(const QString &path, const QStringList &arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    qint64 processId() const { return m_process.processId(); }
    bool isRunning() const { return m_process.state() == QProcess::Running; }
    void write(const QByteArray &text);
    void closeInput();

    /// Its exit status; nothing if it does not end within `timeout`, or crashes.
    std::optional<int> waitForEnd(std::chrono::milliseconds timeout = std::chrono::seconds(30));

    /// What it has written so far, with "\n" as line ends.
    QByteArray output();
    QByteArray errors();

private:
    struct Command
    {
        QString path;
        QStringList arguments;
    };
    explicit ChildProcess(const Command &command);

    QProcess m_process;
    QByteArray m_output;
    QByteArray m_errors;
};

/// What a child program that ran to its end has left.
struct ChildResult
{
    std::optional<int> status;
    QByteArray output;
    QByteArray errors;
};
ChildResult runChild(const QString &program, const QStringList &arguments = {});

/// A test whose body runs in a process of its own, without an application object: for what exists once in each
/// process, or must not see what other tests left.
#define TEST_IN_OWN_PROCESS(suite, name)                                                                             \
    static void suite##_##name##_body();                                                                             \
    TEST(suite, name)                                                                                                \
    {                                                                                                                \
        ::ruvo::test::runInOwnProcess(#suite "." #name, &suite##_##name##_body);                                     \
    }                                                                                                                \
    static void suite##_##name##_body()

void runInOwnProcess(const char *test, void (*body)());

/// Whether this process was started for the body of one such test. Asked once, by main.
bool isOwnProcessRequested(int argc, char **argv);

} // namespace ruvo::test
