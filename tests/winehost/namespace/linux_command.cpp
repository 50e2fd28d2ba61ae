#include "namespace/linux_command.h"

namespace ruvo::test {

namespace {

constexpr char endMark[] = "[end of command: ";

std::wstring newTemporaryFile()
{
    wchar_t folder[MAX_PATH] = {};
    wchar_t path[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    GetTempFileNameW(folder, L"lin", 0, path);
    return path;
}

HANDLE openInheritable(const std::wstring &path)
{
    SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, TRUE};
    return CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &attributes,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

std::wstring commandLine(const std::string &command)
{
    // Wine tells nobody when a Linux program ends: the shell writes it down.
    const std::string script = "( " + command + " ) 2>&1; echo \"" + endMark + "$?]\"";
    std::wstring line = L"sh -c \"";
    std::size_t backslashes = 0; // they count twice before a quote, and only there
    for (const char c : script) {
        if (c == '"')
            line.append(backslashes + 1, L'\\');
        backslashes = c == '\\' ? backslashes + 1 : 0;
        line += static_cast<wchar_t>(c);
    }
    return line + L'"';
}

} // namespace

LinuxCommand::LinuxCommand(const std::string &command) : m_path(newTemporaryFile()), m_file(openInheritable(m_path))
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = INVALID_HANDLE_VALUE;
    startup.hStdOutput = m_file;
    startup.hStdError = m_file;
    PROCESS_INFORMATION information{};
    std::wstring line = commandLine(command);
    CreateProcessW(L"\\\\?\\unix\\bin\\sh", line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                   &information);
}

LinuxCommand::~LinuxCommand()
{
    CloseHandle(m_file);
    DeleteFileW(m_path.c_str());
}

std::string LinuxCommand::outputSoFar() const
{
    const HANDLE file = CreateFileW(m_path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    std::string text;
    char block[4096];
    for (DWORD count = 0; ReadFile(file, block, sizeof block, &count, nullptr) && count > 0;)
        text.append(block, count);
    CloseHandle(file);
    return text;
}

std::optional<LinuxCommand::Result> LinuxCommand::wait(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const std::string text = outputSoFar();
        const std::size_t mark = text.rfind(endMark);
        if (mark != std::string::npos && text.ends_with("]\n"))
            return Result{std::stoi(text.substr(mark + sizeof endMark - 1)), text.substr(0, mark)};
        if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        Sleep(5);
    }
}

std::string linuxOutput(const std::string &command)
{
    const auto result = LinuxCommand(command).wait();
    if (!result)
        return "failed: no end of " + command;
    return result->status == 0 ? result->output : "failed: " + result->output;
}

} // namespace ruvo::test
