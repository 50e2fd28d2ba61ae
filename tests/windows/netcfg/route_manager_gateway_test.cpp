// Which of the system's routes is taken for the original default route.

#include "netcfg/default_routes.h"
#include "netcfg/forward_table.h"
#include "netcfg/route_manager.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/fake_ip_helper.h"

#include <gtest/gtest.h>

#include <optional>
#include <utility>

namespace ruvo {
namespace {

using test::FakeIpHelper;
using test::ForwardRow;

using Gateway = std::pair<std::uint32_t, std::uint32_t>;

std::optional<Gateway> find(const RouteManager &routes)
{
    std::uint32_t gateway = 0;
    std::uint32_t interfaceIndex = 0;
    if (!routes.findOriginalGateway(gateway, interfaceIndex))
        return std::nullopt;
    return Gateway{gateway, interfaceIndex};
}

std::optional<Gateway> find()
{
    const BypassRouteNotes notes;
    return find(RouteManager(notes));
}

/// With a tunnel on the interface of FakeIpHelper, 7.
std::optional<Gateway> findBeside(const std::vector<DefaultRoute> &earlier)
{
    const BypassRouteNotes notes;
    RouteManager routes(notes);
    routes.setInterface(4711);
    routes.setEarlierDefaultRoutes(earlier);
    return find(routes);
}

constexpr ForwardRow lan{"192.168.1.0", "255.255.255.0", "0.0.0.0", 4};
constexpr ForwardRow viaLan{"0.0.0.0", "0.0.0.0", "192.168.1.1", 4, 25};
constexpr ForwardRow viaWlan{"0.0.0.0", "0.0.0.0", "10.0.0.1", 9, 5};
constexpr ForwardRow onLink{"0.0.0.0", "0.0.0.0", "0.0.0.0", 12, 1};
constexpr ForwardRow ofTheTunnel{"0.0.0.0", "0.0.0.0", "10.6.7.2", 7, 5};

struct Case
{
    const char *what;
    std::vector<ForwardRow> table;
    std::optional<Gateway> expected;
};

TEST(OriginalGateway, isTheFirstDefaultRouteOfTheSystemsOrder)
{
    const Case cases[] = {
        {"one default route", {lan, viaLan}, Gateway{0xC0A80101, 4}},
        {"the worse metric first", {viaLan, lan, viaWlan}, Gateway{0xC0A80101, 4}},
        {"the better metric first", {viaWlan, lan, viaLan}, Gateway{0x0A000001, 9}},
        {"an on-link default", {lan, onLink, viaLan}, Gateway{0, 12}},
        {"none", {lan}, std::nullopt},
        {"an empty table", {}, std::nullopt},
    };
    for (const Case &one : cases) {
        FakeIpHelper ipHelper;
        ipHelper.forwardTable = one.table;
        EXPECT_EQ(find(), one.expected) << one.what;
        EXPECT_EQ(ipHelper.forwardTableCalls, 2) << one.what;
    }
}

TEST(OriginalGateway, isUnknownIfTheTableCannotBeRead)
{
    for (const int nth : {1, 2}) {
        for (const DWORD error : {DWORD{ERROR_NO_DATA}, DWORD{ERROR_NOT_SUPPORTED}}) {
            FakeIpHelper ipHelper;
            ipHelper.forwardTable = {viaLan};
            ipHelper.failForwardTable(nth, error);
            EXPECT_EQ(find(), std::nullopt);
            EXPECT_EQ(ipHelper.forwardTableCalls, nth);
        }
    }
}

TEST(OriginalGateway, isUnknownIfThereIsNothingToAskFor)
{
    FakeIpHelper ipHelper;
    ipHelper.forwardTable = {viaLan};
    ipHelper.failForwardTable(1, NO_ERROR); // "fits into nothing"
    EXPECT_EQ(find(), std::nullopt);
    EXPECT_EQ(ipHelper.forwardTableCalls, 1);
}

TEST(OriginalGateway, isAnEarlierOneIfTheTunnelsOwnComesFirst)
{
    FakeIpHelper ipHelper;
    ipHelper.forwardTable = {ofTheTunnel, viaLan};
    EXPECT_EQ(findBeside({{0xC0A80101, 4}}), (Gateway{0xC0A80101, 4}));
    EXPECT_EQ(findBeside({{0x0A000001, 9}, {0xC0A80101, 4}}), (Gateway{0x0A000001, 9})) << "the first";
    ipHelper.forwardTable = {ofTheTunnel};
    EXPECT_EQ(findBeside({{0, 12}}), (Gateway{0, 12})) << "on-link";
    // An adapter that was left behind was listed then, too.
    EXPECT_EQ(findBeside({{0x0A060702, 7}, {0, 7}, {0xC0A80101, 4}}), (Gateway{0xC0A80101, 4}));
}

TEST(OriginalGateway, isTheTunnelsOwnIfThereWasNoOther)
{
    FakeIpHelper ipHelper;
    ipHelper.forwardTable = {ofTheTunnel, viaLan};
    for (const std::vector<DefaultRoute> &earlier : {std::vector<DefaultRoute>{}, {{0x0A060702, 7}}})
        EXPECT_EQ(findBeside(earlier), (Gateway{0x0A060702, 7}));
}

TEST(OriginalGateway, isThePresentOneWhereThatIsNotTheTunnels)
{
    FakeIpHelper ipHelper;
    ipHelper.forwardTable = {viaLan, ofTheTunnel};
    EXPECT_EQ(findBeside({{0x0A000001, 9}}), (Gateway{0xC0A80101, 4}));
    ipHelper.forwardTable = {lan};
    EXPECT_EQ(findBeside({{0x0A000001, 9}}), std::nullopt) << "none";
}

TEST(OriginalGateway, isThePresentOneIfTheTunnelsInterfaceIsUnknown)
{
    FakeIpHelper ipHelper;
    ipHelper.forwardTable = {{"0.0.0.0", "0.0.0.0", "192.168.1.1", 0}};
    ipHelper.fail("ConvertInterfaceLuidToIndex", ERROR_INVALID_PARAMETER);
    EXPECT_EQ(findBeside({{0x0A000001, 9}}), (Gateway{0xC0A80101, 0}));
}

TEST(DefaultRoutes, areAllToNowhereInTheSystemsOrder)
{
    FakeIpHelper ipHelper;
    const ForwardRow half{"0.0.0.0", "128.0.0.0", "0.0.0.0", 7};
    const ForwardRow otherHalf{"128.0.0.0", "128.0.0.0", "0.0.0.0", 7};
    ipHelper.forwardTable = {ofTheTunnel, lan, half, viaLan, otherHalf, viaWlan};
    const std::vector<DefaultRoute> expected{{0x0A060702, 7}, {0, 7}, {0xC0A80101, 4}, {0x0A000001, 9}};
    EXPECT_EQ(defaultRoutes(), expected);
    ipHelper.failForwardTable(3, ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(defaultRoutes().empty());
}

TEST(ForwardTable, isHowItWasAtOneMoment)
{
    FakeIpHelper ipHelper;
    ipHelper.forwardTable = {lan, viaLan};
    const ForwardTable table;
    ipHelper.forwardTable = {};
    ASSERT_EQ(table.rows().size(), 2u);
    EXPECT_EQ(table.rows()[0].dwForwardDest, htonl(0xC0A80100));
    EXPECT_EQ(table.rows()[1].dwForwardNextHop, htonl(0xC0A80101));
    EXPECT_EQ(ForwardTable().rows().size(), 0u);
}

TEST(ForwardTable, hasRoomForRoutesThatComeMeanwhile)
{
    FakeIpHelper ipHelper;
    ipHelper.forwardTable = {viaLan};
    ipHelper.rowsInBetween.assign(64, lan);
    const ForwardTable table;
    ASSERT_EQ(table.rows().size(), 65u);
    EXPECT_EQ(table.rows()[0].dwForwardNextHop, htonl(0xC0A80101));
    EXPECT_EQ(table.rows()[64].dwForwardDest, htonl(0xC0A80100));
    EXPECT_EQ(ipHelper.forwardTableCalls, 2);
}

TEST(ForwardTable, isEmptyIfItGrewOutOfItsRoomMeanwhile)
{
    FakeIpHelper ipHelper;
    ipHelper.forwardTable = {viaLan};
    ipHelper.rowsInBetween.assign(65, lan);
    EXPECT_TRUE(ForwardTable().rows().empty());
    EXPECT_EQ(ipHelper.forwardTableCalls, 2) << "it is not read again";
}

} // namespace
} // namespace ruvo
