#pragma once

// Winsock and IP Helper in the one order that their headers bear.

#include <winsock2.h>
#include <ws2tcpip.h>

#include <iphlpapi.h>
#include <windows.h>
