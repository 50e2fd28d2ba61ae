#include "windows/app/ruvod_process.h"

#include "support/qt_printers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ruvo {
namespace {

using test::RuvodProcess;

constexpr char guidance[] = "ERROR: ruvod must be run as a Windows Service.\n"
                            "To register the service, run: ruvod.exe --register\n"
                            "Then start it via Services or: sc start RuvoService\n";

/// The calls of `process` to functions whose name starts with `prefix`.
QStringList callsOf(RuvodProcess &process, const QString &prefix)
{
    QStringList calls;
    for (const QString &call : process.calls()) {
        if (call.startsWith(prefix))
            calls.append(call);
    }
    return calls;
}

/// Nothing is asked of Windows before the process is hardened.
void expectHardenedFirst(RuvodProcess &process)
{
    EXPECT_EQ(process.calls().value(0), "SetDefaultDllDirectories(0x800)");
    EXPECT_TRUE(process.calls().value(1).startsWith("SetProcessMitigationPolicy(0xa, "));
}

/// Winsock is started next and cleaned up last, once.
void expectWinsockAround(RuvodProcess &process)
{
    expectHardenedFirst(process);
    EXPECT_EQ(process.calls().value(2), "WSAStartup(0x202, &)");
    EXPECT_EQ(process.calls().last(), "WSACleanup()");
    EXPECT_EQ(callsOf(process, "WSA").size(), 2);
}

TEST(Entry, registersTheService)
{
    RuvodProcess process({}, {"--register"});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.output(), "Service registered successfully\n");
    EXPECT_EQ(process.errors(), "");
    EXPECT_EQ(callsOf(process, "CreateServiceW").size(), 1);
    EXPECT_TRUE(callsOf(process, "CreateServiceW")
                    .value(0)
                    .startsWith("CreateServiceW(0x51, \"RuvoService\", \"Ruvo Proxy Client Service\", "));
    EXPECT_TRUE(callsOf(process, "StartServiceCtrlDispatcherW").isEmpty());
    expectWinsockAround(process);
}

TEST(Entry, saysWhyItCouldNotRegisterTheService)
{
    const QList<std::pair<QString, QByteArray>> failures = {
        {"CreateEventW:8", "Failed to create stop event"},
        {"OpenSCManagerW:5", "Failed to open Service Control Manager"},
        {"CreateServiceW:5", "Failed to create service"},
        {"CreateServiceW:1073", "Service already exists"},
    };
    for (const auto &[failure, text] : failures) {
        SCOPED_TRACE(failure.toStdString());
        RuvodProcess process({"fail=" + failure}, {"--register"});
        EXPECT_EQ(process.waitForEnd(), 1);
        EXPECT_EQ(process.output(), "");
        EXPECT_EQ(process.errors(), "Failed to register service: " + text + '\n');
        expectWinsockAround(process);
    }
}

TEST(Entry, removesTheService)
{
    RuvodProcess process({}, {"--unregister"});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.output(), "Service unregistered successfully\n");
    EXPECT_EQ(process.errors(), "");
    EXPECT_EQ(callsOf(process, "OpenServiceW"), QStringList("OpenServiceW(0x51, \"RuvoService\", 0x10020)"));
    EXPECT_EQ(callsOf(process, "DeleteService"), QStringList("DeleteService(0x52)"));
    expectWinsockAround(process);
}

TEST(Entry, saysWhyItCouldNotRemoveTheService)
{
    const QList<std::pair<QString, QByteArray>> failures = {
        {"CreateEventW:8", "Failed to create stop event"},
        {"OpenSCManagerW:5", "Failed to open Service Control Manager"},
        {"OpenServiceW:1060", "Failed to open service"},
        {"DeleteService:1072", "Failed to delete service"},
    };
    for (const auto &[failure, text] : failures) {
        SCOPED_TRACE(failure.toStdString());
        RuvodProcess process({"fail=" + failure}, {"--unregister"});
        EXPECT_EQ(process.waitForEnd(), 1);
        EXPECT_EQ(process.output(), "");
        EXPECT_EQ(process.errors(), "Failed to unregister service: " + text + '\n');
        expectWinsockAround(process);
    }
}

TEST(Entry, looksAtTheFirstArgumentOnly)
{
    RuvodProcess process({}, {"--register", "--unregister"});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.output(), "Service registered successfully\n");
    EXPECT_TRUE(callsOf(process, "DeleteService").isEmpty());

    RuvodProcess other({"dispatcher-error=1063"}, {"anything", "--register"});
    EXPECT_EQ(other.waitForEnd(), 1);
    EXPECT_EQ(other.errors(), guidance);
    EXPECT_TRUE(callsOf(other, "CreateServiceW").isEmpty());
}

TEST(Entry, servesTheManagerForAnythingElse)
{
    for (const QStringList &arguments : {QStringList(), QStringList("--REGISTER"), QStringList("--Unregister"),
                                         QStringList("register"), QStringList(""), QStringList("--help")}) {
        SCOPED_TRACE(arguments.join(u' ').toStdString());
        RuvodProcess process({"dispatcher-error=1063"}, arguments);
        EXPECT_EQ(process.waitForEnd(), 1);
        EXPECT_EQ(process.output(), "");
        EXPECT_EQ(process.errors(), guidance);
        EXPECT_EQ(callsOf(process, "StartServiceCtrlDispatcherW").size(), 1);
        EXPECT_TRUE(callsOf(process, "OpenSCManagerW").isEmpty());
        expectWinsockAround(process);
    }
}

TEST(Entry, saysWhyItCouldNotServeTheManager)
{
    RuvodProcess process({"fail=CreateEventW:8"});
    EXPECT_EQ(process.waitForEnd(), 1);
    EXPECT_EQ(process.errors(), "Failed to create stop event\n");
    expectWinsockAround(process);
}

TEST(Entry, givesUpWithoutWinsock)
{
    for (const QStringList &arguments : {QStringList(), QStringList("--register"), QStringList("--unregister")}) {
        SCOPED_TRACE(arguments.join(u' ').toStdString());
        RuvodProcess process({"fail=WSAStartup:10091"}, arguments);
        EXPECT_EQ(process.waitForEnd(), 1);
        expectHardenedFirst(process);
        EXPECT_EQ(process.calls().mid(2), QStringList("WSAStartup(0x202, &)"));
        EXPECT_EQ(process.output(), "");
        EXPECT_EQ(process.log(), QStringList("CRITICAL: WSAStartup failed: 10091"));
        EXPECT_EQ(process.errors().count('\n'), 1);
    }
}

} // namespace
} // namespace ruvo
