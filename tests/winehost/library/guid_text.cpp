#include "guid_text.h"

#include <cstdio>
#include <cstring>

namespace ruvo::winehost {

std::string guidText(const GUID &guid)
{
    char text[40];
    const auto *b = guid.Data4;
    std::snprintf(text, sizeof text, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1, guid.Data2,
                  guid.Data3, b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7]);
    return text;
}

std::optional<GUID> parseGuid(std::string_view text)
{
    GUID guid{};
    auto *b = guid.Data4;
    const std::string copy(text);
    int length = 0;
    const int fields =
        std::sscanf(copy.c_str(), "{%8lx-%4hx-%4hx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx}%n", &guid.Data1,
                    &guid.Data2, &guid.Data3, &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &b[6], &b[7], &length);
    // What scanf takes as a number in other ways (signs, blanks, fewer digits) does not come out the same again.
    if (fields != 11 || length != static_cast<int>(copy.size())
        || _stricmp(guidText(guid).c_str(), copy.c_str()) != 0)
        return std::nullopt;
    return guid;
}

} // namespace ruvo::winehost
