// Terminal Services as `sessions.txt` says: Wine knows no sessions. Called from any thread of the program.

#include "blocks.h"
#include "journal.h"
#include "session_list.h"

#include <cstring>
#include <string>

namespace {

using namespace ruvo::winehost;

/// The array with the names of the stations behind it, in one block as Windows lays it out.
PWTS_SESSION_INFOW makeSessionInfo(const std::vector<Session> &sessions, unsigned long &number)
{
    constexpr std::size_t nameLength = 32; // Windows: WINSTATIONNAME_LENGTH
    const std::size_t arraySize = sessions.size() * sizeof(WTS_SESSION_INFOW);
    void *block = allocateBlock(arraySize + sessions.size() * nameLength * sizeof(wchar_t), number);
    auto *info = static_cast<PWTS_SESSION_INFOW>(block);
    auto *name = reinterpret_cast<wchar_t *>(static_cast<char *>(block) + arraySize);
    for (std::size_t i = 0; i < sessions.size(); ++i, name += nameLength) {
        const std::wstring station =
            sessions[i].id == 0 ? L"Services" : L"RDP-Tcp#" + std::to_wstring(sessions[i].id);
        station.copy(name, nameLength - 1);
        info[i] = {sessions[i].id, name, sessions[i].state};
    }
    return info;
}

bool fail(JournalEntry &entry, DWORD error)
{
    SetLastError(error);
    entry.addResult(false);
    return false;
}

bool enumerate(JournalEntry &entry, DWORD reserved, DWORD version, PWTS_SESSION_INFOW *info, DWORD *count)
{
    if (reserved != 0 || version != 1 || !info || !count)
        return fail(entry, ERROR_INVALID_PARAMETER);
    const auto sessions = readSessions();
    if (!sessions)
        return fail(entry, sessions.error());
    unsigned long block = 0;
    *info = makeSessionInfo(*sessions, block);
    *count = static_cast<DWORD>(sessions->size());
    entry.add("count", *count).add("block", block);
    entry.addResult(true);
    return true;
}

bool queryUserName(JournalEntry &entry, DWORD id, LPWSTR *buffer, DWORD *size)
{
    const auto sessions = readSessions();
    if (!sessions)
        return fail(entry, sessions.error());
    for (const Session &session : *sessions) {
        if (session.id != id)
            continue;
        if (session.nameError != 0)
            return fail(entry, session.nameError);
        unsigned long block = 0;
        const std::size_t bytes = (session.user.size() + 1) * sizeof(wchar_t);
        *buffer = static_cast<LPWSTR>(allocateBlock(bytes, block));
        std::memcpy(*buffer, session.user.c_str(), bytes);
        *size = static_cast<DWORD>(bytes);
        entry.add("user", session.user.c_str()).add("block", block);
        entry.addResult(true);
        return true;
    }
    return fail(entry, ERROR_CTX_WINSTATION_NOT_FOUND);
}

} // namespace

extern "C" {

BOOL WINAPI WTSEnumerateSessionsW(HANDLE, DWORD reserved, DWORD version, PWTS_SESSION_INFOW *info, DWORD *count)
{
    JournalEntry entry("WTSEnumerateSessionsW");
    return enumerate(entry, reserved, version, info, count);
}

BOOL WINAPI WTSQuerySessionInformationW(HANDLE, DWORD id, WTS_INFO_CLASS what, LPWSTR *buffer, DWORD *size)
{
    JournalEntry entry("WTSQuerySessionInformationW");
    entry.add("session", id).add("class", static_cast<int>(what));
    if (what != WTSUserName || !buffer || !size)
        return fail(entry, ERROR_INVALID_PARAMETER);
    return queryUserName(entry, id, buffer, size);
}

VOID WINAPI WTSFreeMemory(PVOID memory)
{
    JournalEntry entry("WTSFreeMemory");
    entry.add("block", freeBlock(memory));
}

} // extern "C"
