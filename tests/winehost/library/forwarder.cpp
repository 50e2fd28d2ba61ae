// A DLL needs some code; all that others see of this one are the forwards of its .def file.

#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID)
{
    return TRUE;
}
