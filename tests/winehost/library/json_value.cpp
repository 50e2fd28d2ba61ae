#include "json_value.h"

#include "text.h"

#include <charconv>

namespace ruvo::winehost {

namespace {

const JsonValue s_none;

class JsonParser
{
public:
    explicit JsonParser(std::string_view text) : m_rest(text) {}

    std::optional<JsonValue> whole()
    {
        JsonValue value;
        if (!take(value))
            return std::nullopt;
        skipBlanks();
        return m_rest.empty() ? std::optional(std::move(value)) : std::nullopt;
    }

private:
    void skipBlanks() { m_rest.remove_prefix(std::min(m_rest.find_first_not_of(" \t\r\n"), m_rest.size())); }

    bool takeMark(std::string_view mark)
    {
        skipBlanks();
        if (!m_rest.starts_with(mark))
            return false;
        m_rest.remove_prefix(mark.size());
        return true;
    }

    bool take(JsonValue &value)
    {
        if (takeMark("null"))
            return true;
        value.flag = takeMark("true");
        if (value.flag || takeMark("false"))
            return become(value, JsonValue::Kind::Flag);
        if (takeMark("\""))
            return become(value, JsonValue::Kind::Text) && takeText(value.text);
        if (takeMark("["))
            return become(value, JsonValue::Kind::Array) && takeList("]", [&] { return takeElement(value); });
        if (takeMark("{"))
            return become(value, JsonValue::Kind::Object) && takeList("}", [&] { return takeMember(value); });
        return become(value, JsonValue::Kind::Number) && takeNumber(value.number);
    }

    static bool become(JsonValue &value, JsonValue::Kind kind)
    {
        value.kind = kind;
        return true;
    }

    template<typename Take>
    bool takeList(std::string_view end, Take takeOne)
    {
        if (takeMark(end))
            return true;
        do {
            if (!takeOne())
                return false;
        } while (takeMark(","));
        return takeMark(end);
    }

    bool takeElement(JsonValue &array) { return take(array.elements.emplace_back()); }

    bool takeMember(JsonValue &object)
    {
        std::string key;
        return takeMark("\"") && takeText(key) && takeMark(":") && take(object.members[key]);
    }

    bool takeNumber(std::int64_t &number)
    {
        const char *end = m_rest.data() + m_rest.size();
        const auto [stopped, error] = std::from_chars(m_rest.data(), end, number);
        m_rest.remove_prefix(static_cast<std::size_t>(stopped - m_rest.data()));
        return error == std::errc();
    }

    bool takeText(std::string &text)
    {
        std::wstring escaped; // surrogates come in pairs
        const auto flush = [&] {
            text += toUtf8(escaped);
            escaped.clear();
        };
        while (!m_rest.empty()) {
            const char c = m_rest.front();
            m_rest.remove_prefix(1);
            if (c == '\\' && m_rest.starts_with('u')) {
                if (!takeUnit(escaped))
                    return false;
                continue;
            }
            flush();
            if (c == '"')
                return true;
            if (c == '\\' && !takeEscape(text))
                return false;
            if (c != '\\')
                text += c;
        }
        return false;
    }

    bool takeUnit(std::wstring &units)
    {
        std::uint16_t unit = 0;
        const std::string_view digits = m_rest.substr(1, 4);
        const auto [stopped, error] = std::from_chars(digits.data(), digits.data() + digits.size(), unit, 16);
        if (error != std::errc() || stopped != digits.data() + 4)
            return false;
        units += static_cast<wchar_t>(unit);
        m_rest.remove_prefix(5);
        return true;
    }

    bool takeEscape(std::string &text)
    {
        constexpr std::string_view marks = "\"\\/bfnrt";
        constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
        const std::size_t which = m_rest.empty() ? std::string_view::npos : marks.find(m_rest.front());
        if (which == std::string_view::npos)
            return false;
        text += meanings[which];
        m_rest.remove_prefix(1);
        return true;
    }

    std::string_view m_rest;
};

} // namespace

const JsonValue &JsonValue::operator[](std::string_view key) const
{
    const auto found = members.find(key);
    return found == members.end() ? s_none : found->second;
}

std::optional<JsonValue> parseJson(std::string_view text)
{
    return JsonParser(text).whole();
}

} // namespace ruvo::winehost
