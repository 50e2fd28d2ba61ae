#include "windows/process/child.h"

#include "process/child_launch.h"
#include "support/wait_until.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>

namespace ruvo::test {

namespace {

constexpr DWORD exitTimeout = 15000; // ms

void readAvailable(HANDLE pipe, QByteArray &bytes)
{
    DWORD available = 0;
    while (PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) && available > 0) {
        QByteArray chunk(static_cast<qsizetype>(available), '\0');
        DWORD read = 0;
        if (!ReadFile(pipe, chunk.data(), available, &read, nullptr))
            return;
        bytes += chunk.first(static_cast<qsizetype>(read));
    }
}

} // namespace

QString testChildPath()
{
    return QDir::toNativeSeparators(
        QDir::cleanPath(QCoreApplication::applicationDirPath() + "/../../winehost/testchild/testchild.exe"));
}

ProcessInfo childInfo(const QStringList &script)
{
    ProcessInfo info;
    info.processId = "child";
    info.executable = testChildPath();
    info.arguments = script;
    return info;
}

QJsonObject childSpec(const QString &processId, const QStringList &script, const QJsonObject &more)
{
    QJsonObject spec{
        {"action", "start"},
        {"process-id", processId},
        {"executable", testChildPath()},
        {"arguments", QJsonArray::fromStringList(script)},
    };
    for (auto entry = more.begin(); entry != more.end(); ++entry)
        spec[entry.key()] = entry.value();
    return spec;
}

bool isAlive(qint64 pid)
{
    const KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid)));
    return process && WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

bool waitForDeath(qint64 pid)
{
    return waitUntil([pid] { return !isAlive(pid); });
}

QList<QJsonObject> factsIn(const QByteArray &output, const QString &name)
{
    QList<QJsonObject> facts;
    for (const QByteArray &line : output.split('\n')) {
        const QJsonObject fact = QJsonDocument::fromJson(line).object();
        if (fact["fact"] == name)
            facts.append(fact);
    }
    return facts;
}

LaunchedChild::LaunchedChild(const QStringList &script) : m_launch(launchChild(childInfo(script))) {}

LaunchedChild::~LaunchedChild()
{
    if (m_launch && !m_launch->hasExited()) {
        terminate();
        waitForExit();
    }
}

void LaunchedChild::terminate(UINT exitCode)
{
    TerminateProcess(m_launch->process.get(), exitCode);
}

std::optional<DWORD> LaunchedChild::waitForExit()
{
    DWORD code = 0;
    if (WaitForSingleObject(m_launch->process.get(), exitTimeout) != WAIT_OBJECT_0
        || !GetExitCodeProcess(m_launch->process.get(), &code)) {
        return std::nullopt;
    }
    return code;
}

QByteArray LaunchedChild::output()
{
    readAvailable(m_launch->stdoutRead.get(), m_output);
    return m_output;
}

QByteArray LaunchedChild::errors()
{
    readAvailable(m_launch->stderrRead.get(), m_errors);
    return m_errors;
}

bool LaunchedChild::waitForOutput(const QByteArray &text)
{
    return waitUntil([&] { return output().contains(text); });
}

QJsonObject LaunchedChild::waitForFact(const QString &name)
{
    waitUntil([&] { return !facts(name).isEmpty(); });
    return facts(name).value(0);
}

QList<QJsonObject> LaunchedChild::facts(const QString &name)
{
    return factsIn(output(), name);
}

} // namespace ruvo::test
