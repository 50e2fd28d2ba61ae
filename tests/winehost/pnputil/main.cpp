// pnputil: takes the place of the tool that Wine lacks, in the prefix's System32. It removes nothing: it writes down
// how it was called, one line of JSON a call in pnputil.jsonl, and then behaves as pnputil.control says.
//
// Both files are in C:\winehost, or in the folder that the variable RUVO_PNPUTIL_FOLDER names. Lines of the control
// file, each of them optional ("#" starts a remark):
//   stdout TEXT | stderr TEXT    a line to that stream
//   delay MS                     wait before the end
//   hang                         never end
//   exit CODE                    the exit code, 0 without

#include "library/json_line.h"
#include "library/text.h"
#include "testchild/output.h"

#include "common/windows_handles.h"

#include <algorithm>
#include <chrono>
#include <sstream>

namespace ruvo::winehost {

namespace {

/// None of the codes that a test would ask for.
constexpr UINT benchIsBroken = 70;

std::wstring folder()
{
    wchar_t path[MAX_PATH] = L"C:\\winehost";
    GetEnvironmentVariableW(L"RUVO_PNPUTIL_FOLDER", path, MAX_PATH);
    CreateDirectoryW(path, nullptr);
    return path;
}

[[noreturn]] void fail(const std::string &what)
{
    writeAll(handleOf(Stream::Error), "pnputil of the bench: " + what + '\n');
    ExitProcess(benchIsBroken);
}

void record(int count, wchar_t **values)
{
    std::vector<std::string> arguments;
    for (int index = 1; index < count; ++index)
        arguments.push_back(toUtf8(values[index]));
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    JsonLine line;
    line.add("time-ms", std::chrono::duration_cast<std::chrono::milliseconds>(now).count())
        .add("pid", GetCurrentProcessId())
        .add("arguments", std::vector<std::string_view>(arguments.begin(), arguments.end()))
        .add("command-line", GetCommandLineW());
    const DWORD error = appendToFile(folder() + L"\\pnputil.jsonl", line.text() + '\n');
    if (error != ERROR_SUCCESS)
        fail("cannot write the record, error " + std::to_string(error));
}

std::string controlText()
{
    const FileHandle file(CreateFileW((folder() + L"\\pnputil.control").c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return {};
    std::string text(64 * 1024, '\0');
    DWORD size = 0;
    if (!ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &size, nullptr))
        fail("cannot read the control file, error " + std::to_string(GetLastError()));
    text.resize(size);
    return text;
}

unsigned long numberOf(const std::string &text)
{
    const std::optional<unsigned long> number = toNumber(text);
    if (!number)
        fail("the control file has no number: " + text);
    return *number;
}

/// Does what the control file says, line by line; returns the exit code.
UINT obey(const std::string &control)
{
    UINT code = 0;
    std::istringstream lines(control);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const size_t space = std::min(line.find(' '), line.size());
        const std::string verb = line.substr(0, space);
        const std::string rest = line.substr(std::min(space + 1, line.size()));
        if (verb.empty() || verb.front() == '#')
            continue;
        if (verb == "stdout")
            writeAll(handleOf(Stream::Output), rest + '\n');
        else if (verb == "stderr")
            writeAll(handleOf(Stream::Error), rest + '\n');
        else if (verb == "delay")
            Sleep(numberOf(rest));
        else if (verb == "hang")
            Sleep(INFINITE);
        else if (verb == "exit")
            code = numberOf(rest);
        else
            fail("the control file has an unknown line: " + line);
    }
    return code;
}

} // namespace

} // namespace ruvo::winehost

int wmain(int count, wchar_t **values)
{
    using namespace ruvo::winehost;
    // First of all, so that a call that hangs or is killed was a call all the same.
    record(count, values);
    return static_cast<int>(obey(controlText()));
}
