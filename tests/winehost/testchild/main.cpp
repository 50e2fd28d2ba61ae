// testchild: a console program that behaves as a test wants a supervised process to behave.

#include "facts.h"
#include "library/text.h"
#include "script.h"
#include "streams.h"

#include <cwchar>
#include <thread>

namespace ruvo::winehost {

namespace {

std::vector<std::thread> s_background;

void joinBackground()
{
    for (std::thread &thread : s_background)
        thread.join();
    s_background.clear();
}

void startLines(const Argument &where, LinePlan plan)
{
    for (const Stream stream : where.streams) {
        plan.stream = stream;
        s_background.emplace_back([plan] { writeLines(plan); });
    }
}

uint64_t asLimit(const Argument &argument)
{
    return argument.number > 0 ? static_cast<uint64_t>(argument.number) : 0;
}

/// A write that fails is nothing to tell: tests close the other end on purpose.
void print(Stream stream, const std::string &text)
{
    writeAll(handleOf(stream), text);
}

const std::vector<Action> s_settings = {
    {L"--report", "t", "FILE", "append facts to FILE instead of printing them to stdout",
     [](Script &, const Arguments &arguments) { setReport(arguments[0].text); }},
    {L"--ignore-ctrl-c", "", "", "switch Ctrl+C off",
     [](Script &script, const Arguments &) { script.interrupts.ignore = true; }},
    {L"--ctrl-c-print", "", "", "fact \"ctrl-c\" with its \"count\" at each Ctrl+C, and live on",
     [](Script &script, const Arguments &) { script.interrupts.print = true; }},
    {L"--ctrl-c-exit", "n", "CODE", "exit with CODE at Ctrl+C",
     [](Script &script, const Arguments &arguments) {
         script.interrupts.exitCode = static_cast<DWORD>(arguments[0].number);
     }},
    {L"--ctrl-c-delay", "n", "MS", "... MS later",
     [](Script &script, const Arguments &arguments) {
         script.interrupts.delayMs = static_cast<DWORD>(arguments[0].number);
     }},
};

const std::vector<Action> s_actions = {
    {L"--print", "t", "TEXT", "TEXT and a line feed to stdout",
     [](Script &, const Arguments &arguments) { print(Stream::Output, toUtf8(arguments[0].text) + '\n'); }},
    {L"--error", "t", "TEXT", "TEXT and a line feed to stderr",
     [](Script &, const Arguments &arguments) { print(Stream::Error, toUtf8(arguments[0].text) + '\n'); }},
    {L"--bytes", "ox", "STREAM HEX", "exactly these bytes",
     [](Script &, const Arguments &arguments) {
         for (const Stream stream : arguments[0].streams)
             print(stream, arguments[1].bytes);
     }},
    {L"--flood", "onn", "STREAM RATE MS", "* lines \"000000000042\", RATE bytes/s for MS",
     [](Script &, const Arguments &arguments) {
         startLines(arguments[0], {.bytesPerSecond = asLimit(arguments[1]), .durationMs = asLimit(arguments[2])});
     }},
    {L"--utf8", "onn", "STREAM RATE MS", "* the same in characters of 2 to 4 bytes, 43 bytes a line",
     [](Script &, const Arguments &arguments) {
         startLines(arguments[0],
                    {.line = utf8Line, .bytesPerSecond = asLimit(arguments[1]), .durationMs = asLimit(arguments[2])});
     }},
    {L"--lines", "on", "STREAM COUNT", "* COUNT lines as of --flood, as fast as the pipe takes them",
     [](Script &, const Arguments &arguments) { startLines(arguments[0], {.lines = asLimit(arguments[1])}); }},
    {L"--echo", "n", "COUNT", "* COUNT bytes from stdin to stdout, then fact \"input\"",
     [](Script &, const Arguments &arguments) {
         s_background.emplace_back([limit = asLimit(arguments[0])] { readInput(limit, true); });
     }},
    {L"--count", "n", "COUNT", "* read COUNT bytes from stdin, then fact \"input\"",
     [](Script &, const Arguments &arguments) {
         s_background.emplace_back([limit = asLimit(arguments[0])] { readInput(limit, false); });
     }},
    {L"--read-line", "", "", "wait for a line from stdin, then fact \"line\"",
     [](Script &, const Arguments &) { readLine(); }},
    {L"--close", "s", "stdin|stdout|stderr", "close the stream and go on",
     [](Script &, const Arguments &arguments) { closeStream(arguments[0].streams[0]); }},
    {L"--join", "", "", "wait for the actions in the background",
     [](Script &, const Arguments &) { joinBackground(); }},
    {L"--sleep", "n", "MS", "do nothing for MS",
     [](Script &, const Arguments &arguments) { Sleep(static_cast<DWORD>(asLimit(arguments[0]))); }},
    {L"--wait", "", "", "do nothing for ever", [](Script &, const Arguments &) { Sleep(INFINITE); }},
    {L"--exit", "n", "CODE", "end now, with CODE (32 bits)",
     [](Script &, const Arguments &arguments) { ExitProcess(static_cast<UINT>(arguments[0].number)); }},
    {L"--append", "tt", "FILE TEXT", "append TEXT and a line feed to FILE",
     [](Script &, const Arguments &arguments) {
         const DWORD error = appendToFile(arguments[0].text, toUtf8(arguments[1].text) + '\n');
         if (error != ERROR_SUCCESS)
             print(Stream::Error, "testchild: cannot append: error " + std::to_string(error) + '\n');
     }},
    {L"--handles", "", "", "fact \"handle\" for each up to 0x2000, then fact \"handles\"",
     [](Script &, const Arguments &) { tellHandles(); }},
    {L"--command-line", "", "", "fact \"command-line\", raw", [](Script &, const Arguments &) { tellCommandLine(); }},
    {L"--arguments", "", "", "fact \"arguments\", as the C runtime split them",
     [](Script &script, const Arguments &) { tellArguments(script.raw); }},
    {L"--directory", "", "", "fact \"directory\"", [](Script &, const Arguments &) { tellDirectory(); }},
    {L"--environment", "t", "NAME", "fact \"environment\"; \"value\" is null when unset",
     [](Script &, const Arguments &arguments) { tellEnvironment(arguments[0].text); }},
    {L"--console", "", "", "fact \"console\": attached, visible, processes",
     [](Script &script, const Arguments &) { tellConsole(script.interruptsIgnoredAtStart); }},
    {L"--startup", "", "", "fact \"startup\": flags and show of STARTUPINFOW",
     [](Script &, const Arguments &) { tellStartup(); }},
    {L"--pid", "", "", "fact \"pid\"", [](Script &, const Arguments &) { tellPid(); }},
};

} // namespace

} // namespace ruvo::winehost

int wmain(int count, wchar_t **values)
{
    using namespace ruvo::winehost;
    Script script = parseScript(count, values, s_settings, s_actions);
    if (script.help) {
        writeAll(handleOf(Stream::Output), helpText(s_settings, s_actions));
        return 0;
    }
    if (!script.error.empty()) {
        writeAll(handleOf(Stream::Error), "testchild: " + script.error + " (see --help)\n");
        return 2;
    }
    script.interruptsIgnoredAtStart = interruptsIgnoredAtStart();
    applyInterruptPlan(script.interrupts);
    for (const Step &step : script.steps)
        step.action->run(script, step.arguments);
    joinBackground();
    return 0;
}
