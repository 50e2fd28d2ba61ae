#include "app/winsock.h"

#include <winsock2.h>

namespace ruvo {

namespace {

int startWinsock()
{
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data);
}

} // namespace

Winsock::Winsock() : m_error(startWinsock()) {}

Winsock::~Winsock()
{
    if (m_error == 0)
        WSACleanup();
}

} // namespace ruvo
