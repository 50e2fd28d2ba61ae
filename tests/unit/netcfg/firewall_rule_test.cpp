#include "netcfg/firewall_rule.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

TEST(FirewallRule, bearsTheDaemonsFullPathInItsName)
{
    const FirewallRule rule = listenerRule(L"C:\\Ruvo\\ruvod.exe");
    EXPECT_TRUE(rule.name == L"RUVO TUN (C:\\Ruvo\\ruvod.exe)");
    EXPECT_TRUE(rule.description == L"Allow RUVO TUN TCP NAT listener");
    EXPECT_TRUE(rule.program == L"C:\\Ruvo\\ruvod.exe");
}

TEST(FirewallRule, isAnotherOneForADaemonInAnotherFolder)
{
    EXPECT_TRUE(listenerRule(L"C:\\a\\ruvod.exe").name != listenerRule(L"C:\\b\\ruvod.exe").name);
}

} // namespace
} // namespace ruvo
