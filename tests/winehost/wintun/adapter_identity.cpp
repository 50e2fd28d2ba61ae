#include "wintun/adapter_identity.h"

#include "library/guid_text.h"
#include "library/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace ruvo::winehost {

namespace {

constexpr std::string_view separator = " | ";
constexpr std::string_view mark = "wintun";
constexpr std::size_t longestAlias = 255;
constexpr std::size_t longestLinuxName = 15;

bool isPlain(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '_';
}

/// FNV-1a, folded to 24 bits.
std::uint32_t shortHash(std::string_view text)
{
    std::uint32_t hash = 2166136261U;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    return (hash >> 24) ^ (hash & 0xFFFFFFU);
}

bool fitsAlias(std::string_view text)
{
    return !text.empty() && text.find(separator) == std::string_view::npos
           && std::ranges::none_of(text, [](char c) { return static_cast<unsigned char>(c) < ' '; });
}

} // namespace

std::optional<std::string> AdapterIdentity::toAlias() const
{
    const std::string type = toUtf8(tunnelType);
    const std::string shown = toUtf8(name);
    if (!fitsAlias(type) || !fitsAlias(shown))
        return std::nullopt;
    std::string alias(mark);
    for (const std::string &part : {guidText(guid), type, shown})
        alias.append(separator).append(part);
    if (alias.size() > longestAlias)
        return std::nullopt;
    return alias;
}

std::optional<AdapterIdentity> AdapterIdentity::fromAlias(std::string_view alias)
{
    std::array<std::string_view, 4> parts;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const std::size_t end = i + 1 < parts.size() ? alias.find(separator) : alias.size();
        if (end == std::string_view::npos)
            return std::nullopt;
        parts[i] = alias.substr(0, end);
        alias.remove_prefix(std::min(end + separator.size(), alias.size()));
    }
    const auto guid = parseGuid(parts[1]);
    if (parts[0] != mark || !guid)
        return std::nullopt;
    return AdapterIdentity{toWide(parts[3]), toWide(parts[2]), *guid};
}

std::string AdapterIdentity::linuxName() const
{
    const std::string text = toUtf8(name);
    if (text.size() <= longestLinuxName && std::ranges::all_of(text, isPlain))
        return text;
    std::string start;
    for (const char c : text) {
        if (isPlain(c) && start.size() < 8)
            start += c;
    }
    if (start.empty())
        start = mark;
    char hash[8];
    std::snprintf(hash, sizeof hash, "%06x", static_cast<unsigned>(shortHash(text)));
    return start + '-' + hash;
}

std::vector<ListedAdapter> listWintunAdapters()
{
    std::vector<ListedAdapter> adapters;
    for (Link &link : listLinks()) {
        if (!link.isTun())
            continue;
        if (auto identity = AdapterIdentity::fromAlias(link.alias))
            adapters.push_back({std::move(link), *std::move(identity)});
    }
    return adapters;
}

} // namespace ruvo::winehost
