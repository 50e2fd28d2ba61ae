// winprobe: what tests need to know from inside Windows, and Wine's own tools do not tell.

#include "probe.h"

#include <cstdio>

namespace {

using namespace ruvo::winehost;

struct Command
{
    const wchar_t *name;
    std::size_t leastArguments;
    int (*run)(const Arguments &);
    const wchar_t *usage;
};

constexpr Command commands[] = {
    {L"keep", 0, keepAlive, L"keep"},
    {L"processes", 0, listProcesses, L"processes [NAME]"},
    {L"pipe", 1, lookAtPipe, L"pipe NAME"},
    {L"service", 1, describeService, L"service NAME"},
    {L"start", 2, startService, L"start NAME MILLISECONDS [stop]"},
    {L"control", 2, controlService, L"control NAME CODE"},
};

} // namespace

int wmain(int argc, wchar_t **argv)
{
    const std::wstring name = argc > 1 ? argv[1] : L"";
    const Arguments arguments(argv + (argc > 1 ? 2 : 1), argv + argc);
    for (const Command &command : commands) {
        if (name == command.name && arguments.size() >= command.leastArguments)
            return command.run(arguments);
    }
    std::fputs("usage:\n", stderr);
    for (const Command &command : commands)
        std::fprintf(stderr, "    winprobe %ls\n", command.usage);
    return 2;
}
