#pragma once

// The command line of the child: settings, and actions that run in their order.

#include "interrupt.h"
#include "output.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ruvo::winehost {

/// One parameter of an action, already understood as its kind says.
struct Argument
{
    std::wstring text;
    int64_t number = 0;
    std::vector<Stream> streams;
    std::string bytes;
};
using Arguments = std::vector<Argument>;

struct Script;

struct Action
{
    const wchar_t *name;
    /// One letter a parameter: t text, n number, o output stream ("both" too), s any stream, x bytes in hexadecimal.
    const char *kinds;
    const char *parameters;
    const char *help;
    void (*run)(Script &script, const Arguments &arguments);
};

struct Step
{
    const Action *action;
    Arguments arguments;
};

struct Script
{
    std::vector<std::wstring> raw;
    InterruptPlan interrupts;
    bool interruptsIgnoredAtStart = false;
    std::vector<Step> steps;
    /// Not empty: the command line is wrong.
    std::string error;
    bool help = false;
};

/// Understands the whole command line before anything runs: a typing error must not look like a misbehaving child.
Script parseScript(int count, wchar_t **values, const std::vector<Action> &settings,
                   const std::vector<Action> &actions);

std::string helpText(const std::vector<Action> &settings, const std::vector<Action> &actions);

} // namespace ruvo::winehost
