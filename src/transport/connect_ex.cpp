#include "transport/connect_ex.h"

#include <atomic>

namespace ruvo {

LPFN_CONNECTEX connectExPointer(SOCKET socket)
{
    static std::atomic<LPFN_CONNECTEX> s_connectEx = nullptr;
    if (const LPFN_CONNECTEX known = s_connectEx)
        return known;
    GUID id = WSAID_CONNECTEX;
    LPFN_CONNECTEX found = nullptr;
    DWORD size = 0;
    if (WSAIoctl(socket, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &found, sizeof(found), &size, nullptr,
                 nullptr) != 0) {
        return nullptr;
    }
    s_connectEx = found;
    return found;
}

} // namespace ruvo
