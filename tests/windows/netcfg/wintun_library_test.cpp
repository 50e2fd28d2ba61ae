#include "netcfg/wintun_library.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/fake_wintun.h"

#include <gtest/gtest.h>

#include <optional>

namespace ruvo {
namespace {

using test::FakeWintun;

const QStringList functionsInOrder = {
    "WintunCreateAdapter",
    "WintunCloseAdapter",
    "WintunOpenAdapter",
    "WintunGetAdapterLUID",
    "WintunGetRunningDriverVersion",
    "WintunDeleteDriver",
    "WintunSetLogger",
    "WintunStartSession",
    "WintunEndSession",
    "WintunGetReadWaitEvent",
    "WintunReceivePacket",
    "WintunReleaseReceivePacket",
    "WintunAllocateSendPacket",
    "WintunSendPacket",
};

/// The calls up to the look-up of the function number `count`.
QStringList lookUps(qsizetype count)
{
    QStringList calls{"LoadLibraryExW null 8"};
    for (const QString &name : functionsInOrder.first(count))
        calls.append("GetProcAddress " + name);
    return calls;
}

TEST(WintunLibrary, looksForItsDependenciesBesideItAndFindsEveryFunctionInOrder)
{
    const test::LogCapture log;
    FakeWintun fake;
    {
        WintunLibrary library;
        EXPECT_FALSE(library.isLoaded());
        EXPECT_TRUE(library.load(FakeWintun::path));
        EXPECT_TRUE(library.isLoaded());
        EXPECT_EQ(fake.calls(), lookUps(14));
    }
    EXPECT_EQ(fake.calls(), lookUps(14) << "FreeLibrary");
    EXPECT_EQ(log.lines(), QStringList());
}

TEST(WintunLibrary, saysWhereItIsNot)
{
    const test::LogCapture log;
    FakeWintun fake;
    fake.loadError = ERROR_MOD_NOT_FOUND;
    {
        WintunLibrary library;
        EXPECT_FALSE(library.load(FakeWintun::path));
        EXPECT_FALSE(library.isLoaded());
    }
    EXPECT_EQ(log.lines(),
              QStringList{R"(CRITICAL Failed to load wintun.dll from "C:\\ruvod\\tun2\\wintun.dll" error: 126)"});
    EXPECT_EQ(fake.calls(), lookUps(0)) << "nothing that was not loaded is freed";
}

TEST(WintunLibrary, namesTheFunctionThatIsMissingAndStaysLoadedUntilItGoes)
{
    for (qsizetype i = 0; i < functionsInOrder.size(); ++i) {
        const QString &name = functionsInOrder.at(i);
        const test::LogCapture log;
        FakeWintun fake;
        fake.missing = name.toLatin1();
        std::optional<WintunLibrary> library(std::in_place);
        EXPECT_FALSE(library->load(FakeWintun::path));
        EXPECT_FALSE(library->isLoaded());
        EXPECT_EQ(log.lines(), QStringList{"CRITICAL Failed to load " + name});
        EXPECT_EQ(fake.calls(), lookUps(i + 1));
        library.reset();
        EXPECT_EQ(fake.calls().constLast(), "FreeLibrary");
    }
}

TEST(WintunLibrary, isNotFoundWhereThereIsNone)
{
    const test::LogCapture log;
    WintunLibrary library;
    EXPECT_FALSE(library.load(L"C:\\there is no such folder\\wintun.dll"));
    EXPECT_EQ(log.linesWith("CRITICAL Failed to load wintun.dll from").size(), 1);
}

} // namespace
} // namespace ruvo
