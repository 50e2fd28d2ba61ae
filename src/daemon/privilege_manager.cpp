#include "daemon/privilege_manager.h"

#include "common/windows_handles.h"

namespace ruvo {

PrivilegeManager::PrivilegeManager(QObject *parent) : QObject(parent), m_elevated(privilegeLevel() >= 1) {}

qint32 PrivilegeManager::privilegeLevel()
{
    KernelHandle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.out()))
        return 0;
    TOKEN_ELEVATION elevation{};
    DWORD size = 0;
    if (!GetTokenInformation(token.get(), TokenElevation, &elevation, sizeof(elevation), &size))
        return 0;
    return elevation.TokenIsElevated != 0 ? 1 : 0;
}

} // namespace ruvo
