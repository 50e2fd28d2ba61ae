#pragma once

#include "windows/support/import_redirection.h"

#include <windows.h>
#include <wtsapi32.h>

#include <cstddef>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ruvo::test {

struct FakeSession
{
    DWORD id;
    WTS_CONNECTSTATE_CLASS state = WTSActive;
    /// Nothing: its name cannot be queried.
    std::optional<std::wstring> user = L"somebody";
};

/// Stands in for Terminal Services: the sessions of the machine, and the memory that its answers take.
/// From any thread.
class FakeSessions
{
public:
    explicit FakeSessions(std::vector<FakeSession> sessions);
    FakeSessions(std::initializer_list<FakeSession> sessions = {}) : FakeSessions(std::vector(sessions)) {}

    void set(std::vector<FakeSession> sessions);
    void failEnumeration(DWORD error);

    /// Answers that were allocated in all, and those of them that are not yet freed.
    std::size_t answers() const;
    std::size_t unfreedAnswers() const;
    /// Whether something was freed that is no answer, or was freed already.
    bool freedWrongly() const;

private:
    BOOL enumerate(PWTS_SESSION_INFOW *sessions, DWORD *count);
    BOOL query(DWORD id, WTS_INFO_CLASS infoClass, LPWSTR *text, DWORD *size);
    void free(PVOID memory);
    void *allocate(std::size_t size);

    mutable std::mutex m_mutex;
    std::vector<FakeSession> m_sessions;
    DWORD m_enumerationError = NO_ERROR;
    std::map<void *, std::unique_ptr<std::byte[]>> m_answers;
    std::size_t m_answerCount = 0;
    bool m_freedWrongly = false;

    const ImportRedirection<IMPORT(WTSEnumerateSessionsW)> m_enumerate;
    const ImportRedirection<IMPORT(WTSQuerySessionInformationW)> m_query;
    const ImportRedirection<IMPORT(WTSFreeMemory)> m_free;
};

} // namespace ruvo::test
