#include "script.h"

#include "library/text.h"

#include <algorithm>
#include <cerrno>

namespace ruvo::winehost {

namespace {

bool parseNumber(const std::wstring &text, int64_t &number)
{
    wchar_t *end = nullptr;
    errno = 0;
    number = wcstoll(text.c_str(), &end, 0);
    return !text.empty() && *end == L'\0' && errno == 0;
}

bool parseBytes(const std::wstring &text, std::string &bytes)
{
    if (text.size() % 2 != 0)
        return false;
    for (size_t index = 0; index < text.size(); index += 2) {
        const std::wstring pair = text.substr(index, 2);
        if (pair.find_first_not_of(L"0123456789abcdefABCDEF") != std::wstring::npos)
            return false;
        bytes += static_cast<char>(wcstoul(pair.c_str(), nullptr, 16));
    }
    return true;
}

bool parseArgument(char kind, const std::wstring &text, Argument &argument)
{
    argument.text = text;
    switch (kind) {
    case 'n': return parseNumber(text, argument.number);
    case 'x': return parseBytes(text, argument.bytes);
    case 'o':
    case 's': {
        if (kind == 'o' && text == L"both") {
            argument.streams = {Stream::Output, Stream::Error};
            return true;
        }
        const std::optional<Stream> stream = streamNamed(toUtf8(text));
        if (!stream || (kind == 'o' && *stream == Stream::Input))
            return false;
        argument.streams = {*stream};
        return true;
    }
    default: return true;
    }
}

const Action *find(const std::vector<Action> &table, const std::wstring &name)
{
    for (const Action &action : table) {
        if (name == action.name)
            return &action;
    }
    return nullptr;
}

void describe(std::string &text, const std::vector<Action> &table)
{
    for (const Action &action : table) {
        std::string usage = "  " + toUtf8(action.name) + ' ' + action.parameters;
        usage.resize(std::max<size_t>(usage.size() + 1, 40), ' ');
        text += usage + action.help + '\n';
    }
}

} // namespace

Script parseScript(int count, wchar_t **values, const std::vector<Action> &settings,
                   const std::vector<Action> &actions)
{
    Script script;
    script.raw.assign(values, values + count);
    for (size_t index = 1; index < script.raw.size() && script.error.empty(); ++index) {
        const std::wstring &name = script.raw[index];
        // What follows is there to be received only.
        if (name == L"--")
            break;
        if (name == L"--help") {
            script.help = true;
            break;
        }
        const Action *setting = find(settings, name);
        const Action *action = setting != nullptr ? setting : find(actions, name);
        if (action == nullptr) {
            script.error = "unknown action: " + toUtf8(name);
            break;
        }
        Arguments arguments;
        for (const char *kind = action->kinds; *kind != '\0'; ++kind) {
            Argument argument;
            if (++index >= script.raw.size() || !parseArgument(*kind, script.raw[index], argument)) {
                script.error = toUtf8(name) + " needs " + action->parameters;
                break;
            }
            arguments.push_back(argument);
        }
        if (!script.error.empty())
            break;
        if (setting != nullptr)
            setting->run(script, arguments);
        else
            script.steps.push_back({action, arguments});
    }
    return script;
}

std::string helpText(const std::vector<Action> &settings, const std::vector<Action> &actions)
{
    std::string text = "usage: testchild [SETTING | ACTION]... [-- IGNORED...]\n"
                       "A child to be supervised: does what its arguments say, in their order, then exits with 0.\n\n"
                       "settings, in force from the start wherever they stand:\n";
    describe(text, settings);
    text += "\nactions:\n";
    describe(text, actions);
    text += "\nSTREAM is stdout, stderr or, where two make sense, both. MS, RATE and COUNT of 0 mean no limit.\n"
            "Actions marked * run in the background: the next action begins at once. The end of the arguments waits\n"
            "for them, --exit does not. A fact is a line of JSON: {\"fact\": NAME, ...}.\n"
            "Exit codes of its own: 2 for a wrong command line.\n";
    return text;
}

} // namespace ruvo::winehost
