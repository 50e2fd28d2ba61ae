// The ids of the firewall's classes and interfaces: no import library has them.

#include "common/winsock_headers.h"

#include <initguid.h>

#include <netfw.h>
