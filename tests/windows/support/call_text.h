#pragma once

#include <QByteArray>
#include <QString>

#include <windows.h>

#include <string>
#include <type_traits>

namespace ruvo::test {

// How the arguments of a Windows call are written in a journal: so that two runs give the same text, and that it
// reads like the call. Flags in hex, counts and booleans in decimal, constant wide text in quotes, handles (and
// untyped addresses) in hex; "&" for the address of anything else, which differs from run to run.

inline std::string hexText(std::uint64_t value)
{
    return (value < 10 ? QByteArray::number(value) : "0x" + QByteArray::number(value, 16)).toStdString();
}

/// What DECLARE_HANDLE makes (SC_HANDLE, HMODULE): a pointer to nothing.
template<typename T>
concept OpaqueHandle = std::is_void_v<T> || requires(T value)
{
    value.unused;
};

template<typename T>
std::string callText(const T &value)
{
    if constexpr (std::is_same_v<T, const wchar_t *>) {
        return value ? '"' + QString::fromWCharArray(value).toStdString() + '"' : "null";
    } else if constexpr (std::is_null_pointer_v<T>) {
        return "null";
    } else if constexpr (std::is_pointer_v<T>) {
        if (!value)
            return "null";
        if constexpr (OpaqueHandle<std::remove_cv_t<std::remove_pointer_t<T>>>)
            return hexText(reinterpret_cast<std::uintptr_t>(value));
        else
            return "&";
    } else if constexpr (std::is_enum_v<T>) {
        return callText(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::is_unsigned_v<T>) {
        return hexText(value);
    } else if constexpr (std::is_integral_v<T>) {
        return std::to_string(value);
    } else {
        return "{}";
    }
}

} // namespace ruvo::test
