#include "facts.h"

#include "library/text.h"
#include "output.h"

#include <winternl.h>

namespace ruvo::winehost {

namespace {

constexpr uintptr_t firstHandle = 0x4;
constexpr uintptr_t lastHandle = 0x2000;

std::string_view fileTypeOf(HANDLE handle)
{
    switch (GetFileType(handle)) {
    case FILE_TYPE_DISK: return "disk";
    case FILE_TYPE_CHAR: return "char";
    case FILE_TYPE_PIPE:
        // Sockets too.
        return "pipe";
    default: return "none";
    }
}

std::string objectTypeOf(HANDLE handle)
{
    alignas(PUBLIC_OBJECT_TYPE_INFORMATION) char buffer[1024];
    ULONG length = 0;
    if (NtQueryObject(handle, ObjectTypeInformation, buffer, sizeof buffer, &length) != 0)
        return "unknown";
    const auto &name = reinterpret_cast<const PUBLIC_OBJECT_TYPE_INFORMATION *>(buffer)->TypeName;
    return toUtf8(std::wstring_view(name.Buffer, name.Length / sizeof(wchar_t)));
}

void addStandardStream(JsonLine &line, HANDLE handle)
{
    for (const Stream stream : {Stream::Input, Stream::Output, Stream::Error}) {
        if (handleOf(stream) == handle) {
            line.add("standard", nameOf(stream));
            return;
        }
    }
    line.addRaw("standard", "null");
}

} // namespace

void tellHandles()
{
    unsigned total = 0, inheritable = 0;
    for (uintptr_t value = firstHandle; value <= lastHandle; value += 4) {
        const HANDLE handle = reinterpret_cast<HANDLE>(value);
        DWORD flags = 0;
        if (!GetHandleInformation(handle, &flags))
            continue;
        const bool inherits = (flags & HANDLE_FLAG_INHERIT) != 0;
        ++total;
        inheritable += inherits ? 1 : 0;
        JsonLine line = fact("handle");
        line.add("value", value).add("inheritable", inherits).add("file", fileTypeOf(handle));
        line.add("object", std::string_view(objectTypeOf(handle)));
        addStandardStream(line, handle);
        tell(line);
    }
    tell(fact("handles").add("total", total).add("inheritable", inheritable));
}

void tellCommandLine()
{
    tell(fact("command-line").add("text", GetCommandLineW()));
}

void tellArguments(const std::vector<std::wstring> &arguments)
{
    std::vector<std::string> texts;
    for (const std::wstring &argument : arguments)
        texts.push_back(toUtf8(argument));
    tell(fact("arguments").add("texts", std::vector<std::string_view>(texts.begin(), texts.end())));
}

void tellDirectory()
{
    std::wstring directory(GetCurrentDirectoryW(0, nullptr), L'\0');
    directory.resize(GetCurrentDirectoryW(static_cast<DWORD>(directory.size()), directory.data()));
    tell(fact("directory").add("path", std::wstring_view(directory)));
}

void tellEnvironment(const std::wstring &name)
{
    std::wstring value(32767, L'\0');
    SetLastError(ERROR_SUCCESS);
    const DWORD length = GetEnvironmentVariableW(name.c_str(), value.data(), static_cast<DWORD>(value.size()));
    const bool isSet = length != 0 || GetLastError() != ERROR_ENVVAR_NOT_FOUND;
    value.resize(length);
    tell(fact("environment").add("name", std::wstring_view(name)).add("value", isSet ? value.c_str() : nullptr));
}

void tellConsole(bool interruptsIgnored)
{
    const HWND window = GetConsoleWindow();
    DWORD pids[64] = {};
    const DWORD count = GetConsoleProcessList(pids, 64);
    std::string list = "[";
    for (DWORD index = 0; index < count && index < 64; ++index) {
        if (index > 0)
            list += ',';
        list += std::to_string(pids[index]);
    }
    list += ']';
    tell(fact("console")
             .add("attached", count != 0)
             .add("window", window != nullptr)
             .add("visible", IsWindowVisible(window) != FALSE)
             .addRaw("processes", list)
             .add("ctrl-c-ignored-at-start", interruptsIgnored));
}

void tellStartup()
{
    STARTUPINFOW startup{};
    GetStartupInfoW(&startup);
    tell(fact("startup").add("size", startup.cb).add("flags", startup.dwFlags).add("show", startup.wShowWindow));
}

void tellPid()
{
    tell(fact("pid").add("pid", GetCurrentProcessId()));
}

} // namespace ruvo::winehost
