#pragma once

#include <QtGlobal>

namespace ruvo {

/// Ends the proxy cores ("xray.exe", "antifilter.exe", in any case) that are left over in a Windows session,
/// whoever started them. Every failure is a log line. Service thread; takes one walk over all processes.
/// CreateToolhelp32Snapshot, ProcessIdToSessionId, TerminateProcess.
void killStaleProcesses(quint32 sessionId);

} // namespace ruvo
