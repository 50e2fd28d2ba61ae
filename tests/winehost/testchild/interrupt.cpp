#include "interrupt.h"

#include "output.h"

#include <winternl.h>

#include <atomic>
#include <cstring>

namespace ruvo::winehost {

namespace {

InterruptPlan s_plan;
std::atomic<unsigned> s_count = 0;

BOOL WINAPI onControlEvent(DWORD event)
{
    if (event != CTRL_C_EVENT)
        return FALSE;
    const unsigned count = ++s_count;
    if (s_plan.print)
        tell(fact("ctrl-c").add("count", count));
    if (s_plan.exitCode) {
        Sleep(s_plan.delayMs);
        ExitProcess(*s_plan.exitCode);
    }
    return TRUE;
}

} // namespace

bool interruptsIgnoredAtStart()
{
    // ConsoleFlags of the process parameters; the SDK's declaration of the structure leaves it unnamed.
    constexpr size_t consoleFlagsOffset = 0x18;
    constexpr ULONG ignoresInterrupts = 1;
    PROCESS_BASIC_INFORMATION process{};
    NtQueryInformationProcess(GetCurrentProcess(), ProcessBasicInformation, &process, sizeof process, nullptr);
    const auto *parameters = reinterpret_cast<const char *>(process.PebBaseAddress->ProcessParameters);
    ULONG flags = 0;
    std::memcpy(&flags, parameters + consoleFlagsOffset, sizeof flags);
    return (flags & ignoresInterrupts) != 0;
}

void applyInterruptPlan(const InterruptPlan &plan)
{
    s_plan = plan;
    // Wine switches Ctrl+C off for the head of a new process group even when it has a console of its own; Windows
    // does not. Saying it in both directions makes the child the same on both.
    SetConsoleCtrlHandler(nullptr, plan.ignore ? TRUE : FALSE);
    if (plan.print || plan.exitCode)
        SetConsoleCtrlHandler(onControlEvent, TRUE);
}

} // namespace ruvo::winehost
