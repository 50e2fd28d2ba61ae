#pragma once

#include <QList>

namespace ruvo {

/// The Windows sessions, in the system's order, that are active or connected, have a user logged on, and are
/// not session 0. Empty (and a warning is logged) if the system cannot list its sessions.
/// WTSEnumerateSessionsW, WTSQuerySessionInformationW.
QList<quint32> activeSessions();

} // namespace ruvo
