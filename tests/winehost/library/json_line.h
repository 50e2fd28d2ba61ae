#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace ruvo::winehost {

/// One JSON object, built member by member in the order of the calls.
class JsonLine
{
public:
    JsonLine &add(std::string_view key, std::string_view text);
    JsonLine &add(std::string_view key, std::wstring_view text);
    JsonLine &add(std::string_view key, const char *text) { return add(key, std::string_view(text)); }
    JsonLine &add(std::string_view key, const wchar_t *text)
    {
        return text ? add(key, std::wstring_view(text)) : addRaw(key, "null");
    }
    template<std::integral T>
    JsonLine &add(std::string_view key, T value)
    {
        if constexpr (std::is_same_v<T, bool>)
            return addRaw(key, value ? "true" : "false");
        else
            return addRaw(key, std::to_string(value));
    }
    JsonLine &add(std::string_view key, const std::vector<std::string_view> &texts);
    /// `json` has to be JSON itself.
    JsonLine &addRaw(std::string_view key, std::string_view json);

    std::string text() const;

private:
    std::string m_members;
};

} // namespace ruvo::winehost
