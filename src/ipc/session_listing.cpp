#include "ipc/session_listing.h"

#include "common/log_category.h"
#include "common/windows_handles.h"

#include <span>

namespace ruvo {

namespace {

bool hasUser(DWORD sessionId)
{
    LPWSTR name = nullptr;
    DWORD size = 0;
    if (!WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, sessionId, WTSUserName, &name, &size))
        return false;
    const WtsMemory<wchar_t> owned(name);
    return name && name[0] != L'\0';
}

} // namespace

QList<quint32> activeSessions()
{
    PWTS_SESSION_INFOW sessions = nullptr;
    DWORD count = 0;
    if (!WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count)) {
        const DWORD error = GetLastError(); // before the log's own calls
        qCWarning(lcRuvod) << "WTSEnumerateSessionsW failed:" << error;
        return {};
    }
    const WtsMemory<WTS_SESSION_INFOW> owned(sessions);

    QList<quint32> active;
    for (const WTS_SESSION_INFOW &session : std::span(sessions, count)) {
        const bool present = session.State == WTSActive || session.State == WTSConnected;
        if (session.SessionId != 0 && present && hasUser(session.SessionId))
            active.append(session.SessionId);
    }
    return active;
}

} // namespace ruvo
