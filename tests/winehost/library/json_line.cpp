#include "json_line.h"

#include "text.h"

#include <cstdio>

namespace ruvo::winehost {

namespace {

std::string quoted(std::string_view text)
{
    std::string json = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            json += escape;
        } else {
            json += c;
        }
    }
    return json += '"';
}

} // namespace

JsonLine &JsonLine::add(std::string_view key, std::string_view text)
{
    return addRaw(key, quoted(text));
}

JsonLine &JsonLine::add(std::string_view key, std::wstring_view text)
{
    return add(key, std::string_view(toUtf8(text)));
}

JsonLine &JsonLine::add(std::string_view key, const std::vector<std::string_view> &texts)
{
    std::string json = "[";
    for (const std::string_view text : texts) {
        if (json.size() > 1)
            json += ',';
        json += quoted(text);
    }
    return addRaw(key, json += ']');
}

JsonLine &JsonLine::addRaw(std::string_view key, std::string_view json)
{
    if (!m_members.empty())
        m_members += ',';
    m_members += quoted(key);
    m_members += ':';
    m_members += json;
    return *this;
}

std::string JsonLine::text() const
{
    std::string json = "{";
    json += m_members;
    return json += '}';
}

} // namespace ruvo::winehost
