#include "namespace/bench_files.h"

#include <windows.h>

#include <fstream>

namespace ruvo::test {

std::filesystem::path programFolder()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::filesystem::path(path).parent_path();
}

std::filesystem::path benchFolder()
{
    return programFolder() / "winehost";
}

void clearBenchFolder()
{
    for (const char *name :
         {"journal.jsonl", "faults.txt", "packets.txt", "netconfig.txt", "adapters.txt", "firewall-rules.json"})
        std::filesystem::remove(benchFolder() / name);
}

void writeBenchFile(const std::string &name, const std::string &text)
{
    std::ofstream(benchFolder() / name, std::ios::binary) << text;
}

std::vector<std::string> journal(const std::string &text)
{
    std::ifstream file(benchFolder() / "journal.jsonl");
    std::vector<std::string> found;
    for (std::string line; std::getline(file, line);) {
        if (line.contains(text))
            found.push_back(line);
    }
    return found;
}

} // namespace ruvo::test
