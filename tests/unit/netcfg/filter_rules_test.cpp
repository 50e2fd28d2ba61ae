// The filters, row by row, and what their weights mean for each other.

#include "netcfg/filter_rules.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ruvo {
namespace {

std::string narrow(std::wstring_view text)
{
    return {text.begin(), text.end()}; // ASCII only
}

std::string textOf(FilterLayer layer)
{
    switch (layer) {
    case FilterLayer::ConnectV4: return "connect-v4";
    case FilterLayer::ConnectV6: return "connect-v6";
    case FilterLayer::AcceptV4: return "accept-v4";
    case FilterLayer::AcceptV6: return "accept-v6";
    }
    return "?";
}

std::string textOf(FilterCondition condition)
{
    switch (condition) {
    case FilterCondition::None: return "any";
    case FilterCondition::Program: return "program";
    case FilterCondition::InterfaceIndex: return "interface";
    case FilterCondition::RemoteDnsPort: return "dns";
    }
    return "?";
}

std::string textOf(const FilterRule &rule)
{
    return textOf(rule.layer) + " " + std::to_string(rule.weight) + " "
           + (rule.action == FilterAction::Permit ? "permit " : "block ") + textOf(rule.condition) + " '"
           + (rule.label ? narrow(rule.label) : "(the program's)") + "' " + rule.failure;
}

template<typename Rows>
std::vector<std::string> textsOf(const Rows &rows)
{
    std::vector<std::string> texts;
    for (const FilterRule &rule : rows)
        texts.push_back(textOf(rule));
    return texts;
}

using Texts = std::vector<std::string>;

TEST(FilterRules, letAProgramConnectAndAcceptOverBothFamilies)
{
    EXPECT_EQ(textsOf(programPermits),
              (Texts{"connect-v4 13 permit program '(the program's)' Failed to add protect ipv4 filter for",
                     "connect-v6 13 permit program '(the program's)' Failed to add protect ipv6 filter for",
                     "accept-v4 13 permit program 'protect ipv4 udp' Failed to add protect ipv4 udp filter for",
                     "accept-v6 13 permit program 'protect ipv6 udp' Failed to add protect ipv6 udp filter for"}));
}

TEST(FilterRules, blockIpv6WhateverItIs)
{
    EXPECT_EQ(textsOf(ipv6Blocks), (Texts{"connect-v6 12 block any 'block ipv6' Failed to add block ipv6 filter:"}));
}

TEST(FilterRules, letEverythingThroughTheTunnel)
{
    EXPECT_EQ(textsOf(tunnelPermits),
              (Texts{"connect-v4 11 permit interface 'allow ipv4' Failed to add allow ipv4 filter:",
                     "connect-v6 11 permit interface 'allow ipv6' Failed to add allow ipv6 filter:"}));
}

TEST(FilterRules, blockDnsOfBothFamilies)
{
    EXPECT_EQ(textsOf(dnsBlocks),
              (Texts{"connect-v4 10 block dns 'block ipv4 dns' Failed to add block ipv4 dns filter:",
                     "connect-v6 10 block dns 'block ipv6 dns' Failed to add block ipv6 dns filter:"}));
}

TEST(FilterRules, bearOneName)
{
    EXPECT_EQ(narrow(filterName), "ruvo-tun");
    EXPECT_EQ(mostFilters, 17u);
}

TEST(FilterRules, nameTheDaemonTheCoreAndTheApplication)
{
    ASSERT_EQ(permittedPrograms.size(), 3u);
    const auto &[daemon, core, application] = permittedPrograms;
    EXPECT_EQ(narrow(daemon.label), "protect ipv4");
    EXPECT_STREQ(daemon.success, "Added process permit filters for ruvod.exe (weight 13)");
    EXPECT_EQ(daemon.failure, nullptr) << "without the daemon the step fails";
    EXPECT_EQ(narrow(core.label), "protect ipv4 xray");
    EXPECT_STREQ(core.success, "Added process permit filters for xray.exe (weight 13)");
    EXPECT_STREQ(core.failure, "Failed to add filters for xray.exe - proxy DNS may not work");
    EXPECT_EQ(narrow(application.label), "protect ipv4 ruvo");
    EXPECT_STREQ(application.success, "Added process permit filters for Ruvo.exe (weight 13)");
    EXPECT_STREQ(application.failure, "Failed to add filters for Ruvo.exe - GUI DNS may not work");
}

std::vector<std::string> pathsBeside(const std::wstring &daemonPath)
{
    std::vector<std::string> paths;
    for (const PermittedProgram &program : permittedPrograms)
        paths.push_back(narrow(pathOf(program, daemonPath)));
    return paths;
}

TEST(FilterRules, findTheOtherProgramsBesideTheDaemon)
{
    EXPECT_EQ(pathsBeside(L"C:\\Program Files\\Ruvo\\ruvod.exe"),
              (Texts{"C:\\Program Files\\Ruvo\\ruvod.exe", "C:\\Program Files\\Ruvo\\core\\xray.exe",
                     "C:\\Program Files\\Ruvo\\Ruvo.exe"}));
    EXPECT_EQ(pathsBeside(L"C:\\d.exe"), (Texts{"C:\\d.exe", "C:\\core\\xray.exe", "C:\\Ruvo.exe"}));
}

TEST(FilterRules, takeEitherSlashAndNoFolderAtAll)
{
    EXPECT_EQ(pathsBeside(L"C:\\Ruvo/ruvod.exe"),
              (Texts{"C:\\Ruvo/ruvod.exe", "C:\\Ruvo/core\\xray.exe", "C:\\Ruvo/Ruvo.exe"}));
    EXPECT_EQ(pathsBeside(L"ruvod.exe"), (Texts{"ruvod.exe", "core\\xray.exe", "Ruvo.exe"}));
}

} // namespace
} // namespace ruvo
