#pragma once

// The filters that keep DNS and IPv6 from leaving around the tunnel, as data. All of them stand in one sublayer,
// where of the filters that match a connection the one of the highest weight decides: the programs that carry the
// tunnel pass everywhere (13), nobody else has IPv6 while that is blocked (12), what goes through the tunnel passes
// (11), and DNS goes nowhere else (10).

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ruvo {

/// Where the system asks about a connection: when a program connects (or first sends to somebody), and when somebody
/// reaches it.
enum class FilterLayer { ConnectV4, ConnectV6, AcceptV4, AcceptV6 };
enum class FilterAction { Permit, Block };
/// What a connection is compared with. Every filter has one condition at most.
enum class FilterCondition { None, Program, InterfaceIndex, RemoteDnsPort };

/// One filter.
struct FilterRule
{
    FilterLayer layer;
    std::uint8_t weight;
    FilterAction action;
    FilterCondition condition;
    /// Its description in the system. Null in a row that takes the label of the program that it is for.
    const wchar_t *label;
    /// Logged if it cannot be added, before the program's path or else the error.
    const char *failure;
};

/// A program that is let through whatever the others may.
struct PermittedProgram
{
    /// From the daemon's folder; empty for the daemon itself.
    std::wstring_view path;
    const wchar_t *label;
    const char *success;
    /// Null where the whole step fails with the program.
    const char *failure;
};

inline constexpr wchar_t filterName[] = L"ruvo-tun";

/// For each of permittedPrograms.
inline constexpr std::array programPermits = {
    FilterRule{FilterLayer::ConnectV4, 13, FilterAction::Permit, FilterCondition::Program, nullptr,
               "Failed to add protect ipv4 filter for"},
    FilterRule{FilterLayer::ConnectV6, 13, FilterAction::Permit, FilterCondition::Program, nullptr,
               "Failed to add protect ipv6 filter for"},
    FilterRule{FilterLayer::AcceptV4, 13, FilterAction::Permit, FilterCondition::Program, L"protect ipv4 udp",
               "Failed to add protect ipv4 udp filter for"},
    FilterRule{FilterLayer::AcceptV6, 13, FilterAction::Permit, FilterCondition::Program, L"protect ipv6 udp",
               "Failed to add protect ipv6 udp filter for"},
};

inline constexpr std::array permittedPrograms = {
    PermittedProgram{L"", L"protect ipv4", "Added process permit filters for ruvod.exe (weight 13)", nullptr},
    PermittedProgram{L"core\\xray.exe", L"protect ipv4 xray", "Added process permit filters for xray.exe (weight 13)",
                     "Failed to add filters for xray.exe - proxy DNS may not work"},
    PermittedProgram{L"Ruvo.exe", L"protect ipv4 ruvo", "Added process permit filters for Ruvo.exe (weight 13)",
                     "Failed to add filters for Ruvo.exe - GUI DNS may not work"},
};

/// For nobody but them, not even through the tunnel.
inline constexpr std::array ipv6Blocks = {
    FilterRule{FilterLayer::ConnectV6, 12, FilterAction::Block, FilterCondition::None, L"block ipv6",
               "Failed to add block ipv6 filter:"},
};

/// What goes through the tunnel itself. The second is added only behind the first.
inline constexpr std::array tunnelPermits = {
    FilterRule{FilterLayer::ConnectV4, 11, FilterAction::Permit, FilterCondition::InterfaceIndex, L"allow ipv4",
               "Failed to add allow ipv4 filter:"},
    FilterRule{FilterLayer::ConnectV6, 11, FilterAction::Permit, FilterCondition::InterfaceIndex, L"allow ipv6",
               "Failed to add allow ipv6 filter:"},
};

inline constexpr std::array dnsBlocks = {
    FilterRule{FilterLayer::ConnectV4, 10, FilterAction::Block, FilterCondition::RemoteDnsPort, L"block ipv4 dns",
               "Failed to add block ipv4 dns filter:"},
    FilterRule{FilterLayer::ConnectV6, 10, FilterAction::Block, FilterCondition::RemoteDnsPort, L"block ipv6 dns",
               "Failed to add block ipv6 dns filter:"},
};

/// All filters that there can be at a time.
inline constexpr std::size_t mostFilters =
    permittedPrograms.size() * programPermits.size() + ipv6Blocks.size() + tunnelPermits.size() + dnsBlocks.size();

/// The full path of `program`, given the daemon's own.
std::wstring pathOf(const PermittedProgram &program, const std::wstring &daemonPath);

} // namespace ruvo
