#include "windows/support/fake_sessions.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace ruvo::test {

FakeSessions::FakeSessions(std::vector<FakeSession> sessions)
    : m_sessions(std::move(sessions))
    , m_enumerate([this](HANDLE server, DWORD reserved, DWORD version, PWTS_SESSION_INFOW *list, DWORD *count) {
        // Windows takes no others for the local machine.
        if (server == WTS_CURRENT_SERVER_HANDLE && reserved == 0 && version == 1)
            return enumerate(list, count);
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    })
    , m_query([this](HANDLE, DWORD id, WTS_INFO_CLASS infoClass, LPWSTR *text, DWORD *size) {
        return query(id, infoClass, text, size);
    })
    , m_free([this](PVOID memory) { free(memory); })
{}

void FakeSessions::set(std::vector<FakeSession> sessions)
{
    const std::lock_guard lock(m_mutex);
    m_sessions = std::move(sessions);
    m_enumerationError = NO_ERROR;
}

void FakeSessions::failEnumeration(DWORD error)
{
    const std::lock_guard lock(m_mutex);
    m_enumerationError = error;
}

std::size_t FakeSessions::answers() const
{
    const std::lock_guard lock(m_mutex);
    return m_answerCount;
}

std::size_t FakeSessions::unfreedAnswers() const
{
    const std::lock_guard lock(m_mutex);
    return m_answers.size();
}

bool FakeSessions::freedWrongly() const
{
    const std::lock_guard lock(m_mutex);
    return m_freedWrongly;
}

BOOL FakeSessions::enumerate(PWTS_SESSION_INFOW *sessions, DWORD *count)
{
    const std::lock_guard lock(m_mutex);
    if (m_enumerationError != NO_ERROR) {
        SetLastError(m_enumerationError);
        return FALSE;
    }
    auto *list = static_cast<PWTS_SESSION_INFOW>(allocate(m_sessions.size() * sizeof(WTS_SESSION_INFOW)));
    std::ranges::transform(m_sessions, list, [](const FakeSession &session) {
        return WTS_SESSION_INFOW{session.id, nullptr, session.state};
    });
    *sessions = list;
    *count = static_cast<DWORD>(m_sessions.size());
    return TRUE;
}

BOOL FakeSessions::query(DWORD id, WTS_INFO_CLASS infoClass, LPWSTR *text, DWORD *size)
{
    const std::lock_guard lock(m_mutex);
    const auto session = std::ranges::find(m_sessions, id, &FakeSession::id);
    if (infoClass != WTSUserName || session == m_sessions.end() || !session->user) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    }
    const std::size_t bytes = (session->user->size() + 1) * sizeof(wchar_t);
    *text = static_cast<LPWSTR>(allocate(bytes));
    std::memcpy(*text, session->user->c_str(), bytes);
    *size = static_cast<DWORD>(bytes);
    return TRUE;
}

void FakeSessions::free(PVOID memory)
{
    const std::lock_guard lock(m_mutex);
    if (m_answers.erase(memory) == 0)
        m_freedWrongly = true;
}

void *FakeSessions::allocate(std::size_t size)
{
    auto memory = std::make_unique<std::byte[]>(size);
    void *address = memory.get();
    m_answers.emplace(address, std::move(memory));
    ++m_answerCount;
    return address;
}

} // namespace ruvo::test
