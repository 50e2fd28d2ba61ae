#include "windows/support/call_journal.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace ruvo::test {

namespace {

class SrwGuard
{
public:
    explicit SrwGuard(SRWLOCK &lock) : m_lock(lock) { AcquireSRWLockExclusive(&m_lock); }
    ~SrwGuard() { ReleaseSRWLockExclusive(&m_lock); }
    SrwGuard(const SrwGuard &) = delete;
    SrwGuard &operator=(const SrwGuard &) = delete;

private:
    SRWLOCK &m_lock;
};

std::string line(const std::string &function, const std::vector<std::string> &arguments)
{
    std::string text = function + '(';
    for (const std::string &argument : arguments) {
        if (text.back() != '(')
            text += ", ";
        text += argument;
    }
    return text + ')';
}

} // namespace

CallJournal::CallJournal(Threads threads) : m_watched{threads, GetCurrentThreadId()} {}

CallJournal::~CallJournal() = default;

void CallJournal::fail(std::string_view function, DWORD error, std::optional<std::size_t> nth)
{
    const SrwGuard guard(m_lock);
    m_plan.push_back({std::string(function), error, nth});
}

void CallJournal::failCall(std::size_t nth, DWORD error)
{
    fail({}, error, nth);
}

std::string CallJournal::failed() const
{
    const SrwGuard guard(m_lock);
    return m_failed;
}

std::vector<std::string> CallJournal::lines() const
{
    const SrwGuard guard(m_lock);
    std::vector<std::string> lines;
    for (const auto &call : m_calls)
        lines.push_back(line(call->function, call->arguments));
    return lines;
}

std::size_t CallJournal::count(std::string_view text) const
{
    return static_cast<std::size_t>(std::ranges::count(lines(), text));
}

std::vector<std::string> CallJournal::unclosed(const std::vector<std::string> &openers, std::string_view closer) const
{
    const SrwGuard guard(m_lock);
    const std::vector<std::string> nothing = {"null", "0", callText(INVALID_HANDLE_VALUE)};
    std::vector<std::string> open;
    for (const auto &call : m_calls) {
        if (!call->failed && std::ranges::count(openers, call->function) > 0
            && std::ranges::count(nothing, call->result) == 0) {
            open.push_back(call->result);
        }
        if (call->function == closer && !call->arguments.empty()) {
            const auto closed = std::ranges::find(open, call->arguments.front());
            if (closed != open.end())
                open.erase(closed);
        }
    }
    return open;
}

void CallJournal::clear()
{
    const SrwGuard guard(m_lock);
    m_calls.clear();
    m_plan.clear();
    m_failed.clear();
}

bool CallJournal::PlannedFailure::strikes(const Call &call)
{
    if (!function.empty() && function != call.function)
        return false;
    if (!remaining)
        return true;
    return *remaining > 0 && --*remaining == 0;
}

std::optional<DWORD> CallJournal::begin(const std::shared_ptr<Call> &call, bool canFail)
{
    const SrwGuard guard(m_lock);
    std::optional<DWORD> error;
    for (PlannedFailure &planned : m_plan) {
        if (canFail && planned.strikes(*call))
            error = planned.error;
    }
    if (error) {
        call->failed = true;
        m_failed = call->function;
    }
    m_calls.push_back(call);
    return error;
}

void CallJournal::end(Call &call, std::string result)
{
    const SrwGuard guard(m_lock);
    call.result = std::move(result);
}

void forEachFailure(CallJournal &journal, DWORD error, const std::function<void()> &scenario)
{
    // A scenario that tries again for ever would never come to its last run.
    constexpr std::size_t mostRuns = 1000;
    for (std::size_t nth = 1; nth <= mostRuns; ++nth) {
        journal.clear();
        journal.failCall(nth, error);
        scenario();
        if (journal.failed().empty())
            return;
    }
    throw std::runtime_error("a scenario makes more than 1000 watched calls");
}

} // namespace ruvo::test
