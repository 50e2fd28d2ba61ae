#include "probe.h"

#include "library/json_line.h"

#include <windows.h>

#include <cstdio>

namespace ruvo::winehost {

// A window that is created while Wine still makes the desktop comes to nothing, and an event loop without its
// window is woken by timers alone. So the first one is created here, and it keeps the desktop until the input ends.
int keepAlive(const Arguments &)
{
    HWND window = nullptr;
    for (int attempt = 0; attempt < 100 && !window; ++attempt) {
        window = CreateWindowExW(0, L"Static", L"winprobe", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
        if (!window)
            Sleep(100);
    }
    std::puts(JsonLine().add("ready", window != nullptr).text().c_str());
    std::fflush(stdout);
    while (window && std::getchar() != EOF) {}
    return window ? 0 : 1;
}

} // namespace ruvo::winehost
