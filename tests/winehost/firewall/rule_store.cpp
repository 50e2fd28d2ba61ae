#include "firewall/rule_store.h"

#include "library/bench_folder.h"
#include "library/json_value.h"
#include "library/text.h"

#include "common/windows_handles.h"

#include <algorithm>

namespace ruvo::winehost {

namespace {

constexpr wchar_t fileName[] = L"firewall-rules.json";

/// Holds off other programs that change the rules.
class StoreLock
{
public:
    StoreLock() : m_mutex(CreateMutexW(nullptr, FALSE, L"Global\\winehost-firewall-rules"))
    {
        WaitForSingleObject(m_mutex.get(), INFINITE);
    }
    ~StoreLock() { ReleaseMutex(m_mutex.get()); }
    StoreLock(const StoreLock &) = delete;
    StoreLock &operator=(const StoreLock &) = delete;

private:
    const KernelHandle m_mutex;
};

std::string lineOf(const RuleProperties &rule)
{
    JsonLine line;
    line.add("name", std::wstring_view(rule.name))
        .add("description", std::wstring_view(rule.description))
        .add("application", std::wstring_view(rule.application))
        .add("protocol", rule.protocol)
        .add("direction", rule.direction)
        .add("action", rule.action)
        .add("enabled", rule.isEnabled);
    return line.text();
}

RuleProperties ruleOf(const JsonValue &value)
{
    return {toWide(value["name"].text),
            toWide(value["description"].text),
            toWide(value["application"].text),
            static_cast<LONG>(value["protocol"].number),
            static_cast<LONG>(value["direction"].number),
            static_cast<LONG>(value["action"].number),
            value["enabled"].flag};
}

/// Readers see the old rules or the new.
bool write(const std::vector<RuleProperties> &rules)
{
    std::string text = "[";
    for (const RuleProperties &rule : rules) {
        text += text.size() > 1 ? ",\n" : "\n";
        text += lineOf(rule);
    }
    text += "\n]\n";
    const std::filesystem::path path = benchFolder() / fileName;
    const std::filesystem::path fresh = path.native() + L".new";
    {
        const FileHandle file(
            CreateFileW(fresh.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD written = 0;
        if (!file || !WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr))
            return false;
    }
    return MoveFileExW(fresh.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING);
}

} // namespace

std::vector<RuleProperties> storedRules()
{
    const auto text = readBenchFile(fileName);
    const auto array = parseJson(text ? *text : "[]");
    std::vector<RuleProperties> rules;
    for (const JsonValue &value : array ? array->elements : std::vector<JsonValue>())
        rules.push_back(ruleOf(value));
    return rules;
}

bool storeRule(const RuleProperties &rule)
{
    const StoreLock lock;
    std::vector<RuleProperties> rules = storedRules();
    rules.push_back(rule);
    return write(rules);
}

DWORD removeStoredRule(const wchar_t *name)
{
    const StoreLock lock;
    std::vector<RuleProperties> rules = storedRules();
    const auto found = std::ranges::find_if(
        rules, [&](const RuleProperties &rule) { return _wcsicmp(rule.name.c_str(), name) == 0; });
    if (found == rules.end())
        return ERROR_FILE_NOT_FOUND;
    rules.erase(found);
    return write(rules) ? NO_ERROR : GetLastError();
}

} // namespace ruvo::winehost
