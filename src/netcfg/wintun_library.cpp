#include "netcfg/wintun_library.h"

#include "common/log_category.h"

#include <QString>

#include <bit>

namespace ruvo {

namespace {

struct EntryPoint
{
    const char *name;
    void (*assign)(WintunLibrary &library, FARPROC function);
};

template<auto Member>
void assign(WintunLibrary &library, FARPROC function)
{
    library.*Member = std::bit_cast<std::remove_reference_t<decltype(library.*Member)>>(function);
}

constexpr EntryPoint entryPoints[] = {
    {"WintunCreateAdapter", assign<&WintunLibrary::createAdapter>},
    {"WintunCloseAdapter", assign<&WintunLibrary::closeAdapter>},
    {"WintunOpenAdapter", assign<&WintunLibrary::openAdapter>},
    {"WintunGetAdapterLUID", assign<&WintunLibrary::getAdapterLuid>},
    {"WintunGetRunningDriverVersion", assign<&WintunLibrary::getRunningDriverVersion>},
    {"WintunDeleteDriver", assign<&WintunLibrary::deleteDriver>},
    {"WintunSetLogger", assign<&WintunLibrary::setLogger>},
    {"WintunStartSession", assign<&WintunLibrary::startSession>},
    {"WintunEndSession", assign<&WintunLibrary::endSession>},
    {"WintunGetReadWaitEvent", assign<&WintunLibrary::getReadWaitEvent>},
    {"WintunReceivePacket", assign<&WintunLibrary::receivePacket>},
    {"WintunReleaseReceivePacket", assign<&WintunLibrary::releaseReceivePacket>},
    {"WintunAllocateSendPacket", assign<&WintunLibrary::allocateSendPacket>},
    {"WintunSendPacket", assign<&WintunLibrary::sendPacket>},
};

} // namespace

bool WintunLibrary::load(const std::wstring &path)
{
    m_module.reset(LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
    if (!m_module) {
        const DWORD error = GetLastError();
        qCCritical(lcRuvod) << "Failed to load wintun.dll from" << QString::fromStdWString(path) << "error:" << error;
        return false;
    }
    for (const EntryPoint &entry : entryPoints) {
        const FARPROC function = GetProcAddress(m_module.get(), entry.name);
        if (!function) {
            qCCritical(lcRuvod) << "Failed to load" << entry.name;
            return false;
        }
        entry.assign(*this, function);
    }
    m_complete = true;
    return true;
}

} // namespace ruvo
