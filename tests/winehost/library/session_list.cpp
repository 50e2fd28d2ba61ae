#include "session_list.h"

#include "bench_folder.h"
#include "journal.h"
#include "text.h"

#include <optional>

namespace ruvo::winehost {

namespace {

struct StateName
{
    const char *name;
    WTS_CONNECTSTATE_CLASS state;
};

constexpr StateName stateNames[] = {
    {"active", WTSActive},
    {"connected", WTSConnected},
    {"connect-query", WTSConnectQuery},
    {"shadow", WTSShadow},
    {"disconnected", WTSDisconnected},
    {"idle", WTSIdle},
    {"listen", WTSListen},
    {"reset", WTSReset},
    {"down", WTSDown},
    {"init", WTSInit},
};

std::optional<WTS_CONNECTSTATE_CLASS> stateOf(const std::string &name)
{
    for (const StateName &known : stateNames) {
        if (name == known.name)
            return known.state;
    }
    return std::nullopt;
}

std::optional<Session> parseSession(const std::vector<std::string> &words)
{
    if (words.size() < 2 || words.size() > 3)
        return std::nullopt;
    const auto id = toNumber(words[0]);
    const auto state = stateOf(words[1]);
    if (!id || !state)
        return std::nullopt;
    Session session{*id, *state, L"", 0};
    if (words.size() == 3 && words[2].starts_with('!')) {
        const auto error = toNumber(std::string_view(words[2]).substr(1));
        if (!error || *error == 0)
            return std::nullopt;
        session.nameError = *error;
    } else if (words.size() == 3) {
        session.user = toWide(words[2]);
    }
    return session;
}

std::unexpected<DWORD> complain(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + word;
    JournalEntry("sessions.txt").add("not-understood", std::string_view(line));
    return std::unexpected<DWORD>(ERROR_INVALID_DATA);
}

} // namespace

std::expected<std::vector<Session>, DWORD> readSessions()
{
    const auto text = readBenchFile(L"sessions.txt");
    if (!text)
        return std::unexpected(GetLastError());
    std::vector<Session> sessions;
    for (const auto &words : wordsOfLines(*text)) {
        if (words[0] == "fail") {
            const auto error = words.size() == 2 ? toNumber(words[1]) : std::nullopt;
            return error ? std::unexpected<DWORD>(*error) : complain(words);
        }
        auto session = parseSession(words);
        if (!session)
            return complain(words);
        sessions.push_back(*std::move(session));
    }
    return sessions;
}

} // namespace ruvo::winehost
