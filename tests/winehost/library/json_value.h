#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ruvo::winehost {

/// Parsed JSON, as far as the bench's own programs write it: numbers are whole.
struct JsonValue
{
    enum class Kind : std::uint8_t { Null, Flag, Number, Text, Array, Object };

    Kind kind = Kind::Null;
    bool flag = false;
    std::int64_t number = 0;
    std::string text; ///< UTF-8
    std::vector<JsonValue> elements;
    std::map<std::string, JsonValue, std::less<>> members;

    /// A member of an object; null where there is none.
    const JsonValue &operator[](std::string_view key) const;
    bool isNumber() const { return kind == Kind::Number; }
};

/// Nothing for what is no JSON, or more than one value.
std::optional<JsonValue> parseJson(std::string_view text);

} // namespace ruvo::winehost
