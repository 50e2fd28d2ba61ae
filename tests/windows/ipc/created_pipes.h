#pragma once

#include "common/windows_handles.h"
#include "windows/support/import_redirection.h"

#include <sddl.h>

#include <string>
#include <vector>

namespace ruvo::test {

/// The owner and the access list of `descriptor` as text.
inline std::wstring accessText(PSECURITY_DESCRIPTOR descriptor)
{
    LPWSTR text = nullptr;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(
            descriptor, SDDL_REVISION_1, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &text, nullptr))
        return L"no text: error " + std::to_wstring(GetLastError());
    const LocalMemory owned(text);
    return text;
}

/// With what this process asks for instances of pipes, in order.
class CreatedPipes
{
public:
    struct Call
    {
        std::wstring name;
        DWORD openMode;
        DWORD pipeMode;
        DWORD instances;
        DWORD timeout;
        bool isInherited;
        std::wstring access;
        HANDLE result;

        bool isFirstOnly() const { return (openMode & FILE_FLAG_FIRST_PIPE_INSTANCE) != 0; }
    };

    /// Answers as Windows does when a stranger has made a pipe of the name. Wine lets the first instance be any.
    bool isTaken = false;
    std::vector<Call> calls;

private:
    const ImportRedirection<IMPORT(CreateNamedPipeW)> m_create{
        [this](LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD instances, DWORD output, DWORD input,
               DWORD timeout, LPSECURITY_ATTRIBUTES attributes) {
            HANDLE result = INVALID_HANDLE_VALUE;
            if (isTaken && (openMode & FILE_FLAG_FIRST_PIPE_INSTANCE) != 0)
                SetLastError(ERROR_ACCESS_DENIED);
            else
                result = m_create.real(name, openMode, pipeMode, instances, output, input, timeout, attributes);
            const LastErrorKeeper keeper;
            calls.push_back({name, openMode, pipeMode, instances, timeout, attributes->bInheritHandle != FALSE,
                             accessText(attributes->lpSecurityDescriptor), result});
            return result;
        }};
};

} // namespace ruvo::test
