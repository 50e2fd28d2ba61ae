#include "output.h"

#include "common/windows_handles.h"

namespace ruvo::winehost {

namespace {

std::wstring s_report;

DWORD idOf(Stream stream)
{
    switch (stream) {
    case Stream::Input: return STD_INPUT_HANDLE;
    case Stream::Output: return STD_OUTPUT_HANDLE;
    case Stream::Error: return STD_ERROR_HANDLE;
    }
    return 0;
}

} // namespace

HANDLE handleOf(Stream stream)
{
    return GetStdHandle(idOf(stream));
}

void closeStream(Stream stream)
{
    CloseHandle(handleOf(stream));
    // The next file could get the same value, and the stream would live on in it.
    SetStdHandle(idOf(stream), nullptr);
}

std::string_view nameOf(Stream stream)
{
    switch (stream) {
    case Stream::Input: return "stdin";
    case Stream::Output: return "stdout";
    case Stream::Error: return "stderr";
    }
    return "";
}

std::optional<Stream> streamNamed(std::string_view name)
{
    for (const Stream stream : {Stream::Input, Stream::Output, Stream::Error}) {
        if (name == nameOf(stream))
            return stream;
    }
    return std::nullopt;
}

DWORD writeAll(HANDLE handle, std::string_view bytes)
{
    while (!bytes.empty()) {
        DWORD written = 0;
        if (!WriteFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr))
            return GetLastError();
        bytes.remove_prefix(written);
    }
    return ERROR_SUCCESS;
}

DWORD appendToFile(const std::wstring &path, std::string_view bytes)
{
    // Wine looks up the end of a file opened for appending and then writes there: without turns, processes that
    // append at once overwrite each other.
    const KernelHandle turn(CreateMutexW(nullptr, FALSE, L"Global\\winehost-append"));
    const DWORD waited = WaitForSingleObject(turn.get(), 30'000);
    if (waited != WAIT_OBJECT_0 && waited != WAIT_ABANDONED)
        return waited == WAIT_TIMEOUT ? DWORD{ERROR_TIMEOUT} : GetLastError();
    DWORD error = ERROR_SUCCESS;
    {
        const FileHandle file(CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                          OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        error = file ? writeAll(file.get(), bytes) : GetLastError();
    }
    ReleaseMutex(turn.get());
    return error;
}

void setReport(const std::wstring &path)
{
    s_report = path;
}

bool hasReport()
{
    return !s_report.empty();
}

JsonLine fact(std::string_view name)
{
    JsonLine line;
    line.add("fact", name);
    return line;
}

void tell(const JsonLine &fact)
{
    const std::string line = fact.text() + '\n';
    if (!hasReport()) {
        writeAll(handleOf(Stream::Output), line);
        return;
    }
    // A fact that got lost must not look like one that was never true.
    if (const DWORD error = appendToFile(s_report, line); error != ERROR_SUCCESS)
        writeAll(handleOf(Stream::Error),
                 "testchild: cannot write the report: error " + std::to_string(error) + '\n');
}

} // namespace ruvo::winehost
