#pragma once

// Watches a list of Windows functions: writes down every call in order, and makes one of them fail.
//
//     CallJournal journal;
//     journal.watch<IMPORT(OpenSCManagerW)>();                        // Windows answers
//     journal.watch<IMPORT(CreateServiceW)>([](auto...) { return fakeService; });
//     journal.watch<IMPORT(CreateFileW)>(FailsWith::minusOne);        // how that function says that it failed
//     journal.fail("CreateServiceW", ERROR_ACCESS_DENIED);
//     ...
//     EXPECT_EQ(journal.lines(), (std::vector<std::string>{"OpenSCManagerW(null, null, 2)", ...}));
//
// For a whole sequence of steps, forEachFailure runs it once for each call that it makes, with that call failing.

#include "windows/support/call_text.h"
#include "windows/support/import_redirection.h"

#include <windows.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ruvo::test {

/// How a function says that it failed; the last error is set in any case.
enum class FailsWith {
    zero,      ///< FALSE or null
    minusOne,  ///< INVALID_HANDLE_VALUE, INVALID_SOCKET, SOCKET_ERROR
    errorCode, ///< it returns the error itself
};

/// Any thread may make the calls that are watched; the journal itself belongs to the thread that made it.
class CallJournal
{
public:
    enum class Threads {
        own, ///< only calls of the thread that made the journal; others reach Windows as ever
        all,
    };

    explicit CallJournal(Threads threads = Threads::own);
    ~CallJournal();
    CallJournal(const CallJournal &) = delete;
    CallJournal &operator=(const CallJournal &) = delete;

    /// From here on the calls of an imported function are written down; `answer` answers them, or, without
    /// one, whatever they reached before. Each function once.
    template<typename ImportType>
    void watch(std::function<typename ImportType::Function> answer, FailsWith failsWith = FailsWith::zero)
    {
        auto next = ImportRedirection<ImportType>::current();
        if (!answer)
            answer = next;
        // By value, as other threads may still be in here when the journal goes.
        m_redirections.push_back(std::make_shared<ImportRedirection<ImportType>>(
            [this, watched = m_watched, answer, next, failsWith](auto... arguments) {
                return watched.containsThisThread() ? take(ImportType::name, answer, failsWith, arguments...)
                                                    : next(arguments...);
            }));
    }
    template<typename ImportType>
    void watch(FailsWith failsWith = FailsWith::zero)
    {
        watch<ImportType>(nullptr, failsWith);
    }

    /// All calls of `function` fail with `error`, or only the `nth` from here on (1 is the next). What fails is
    /// written down, but does not reach its answer. Functions that return nothing cannot fail.
    void fail(std::string_view function, DWORD error, std::optional<std::size_t> nth = std::nullopt);
    /// Of all watched calls the `nth` from here on fails.
    void failCall(std::size_t nth, DWORD error);
    /// The name of the function whose call has failed last because of this journal; empty if none has.
    std::string failed() const;

    /// "Function(argument, argument)" for each call, in order.
    std::vector<std::string> lines() const;
    std::size_t count(std::string_view line) const;
    /// What calls of `openers` returned (the failed ones left out) and no later call of `closer` had as its first
    /// argument.
    std::vector<std::string> unclosed(const std::vector<std::string> &openers, std::string_view closer) const;

    /// Forgets calls and planned failures.
    void clear();

private:
    struct Call
    {
        std::string function;
        std::vector<std::string> arguments;
        std::string result;
        bool failed = false;
    };
    struct PlannedFailure
    {
        std::string function; ///< empty: any
        DWORD error;
        std::optional<std::size_t> remaining; ///< calls until it strikes, 0 once it has; none: every call
        bool strikes(const Call &call);
    };

    struct WatchedThreads
    {
        Threads threads;
        DWORD own;
        bool containsThisThread() const { return threads == Threads::all || GetCurrentThreadId() == own; }
    };

    /// Writes a call down before it is made; gives the error if it is to fail.
    std::optional<DWORD> begin(const std::shared_ptr<Call> &call, bool canFail);
    void end(Call &call, std::string result);

    template<typename Answer, typename... Arguments>
    auto take(const char *name, const Answer &answer, FailsWith failsWith, Arguments... arguments)
    {
        using Result = typename Answer::result_type;
        const auto call = std::make_shared<Call>(Call{name, {callText(arguments)...}, {}, false});
        const std::optional<DWORD> error = begin(call, !std::is_void_v<Result>);
        if constexpr (std::is_void_v<Result>) {
            answer(arguments...);
        } else {
            const Result result = error ? failure<Result>(failsWith, *error) : answer(arguments...);
            const DWORD lastError = GetLastError();
            end(*call, callText(result));
            SetLastError(lastError);
            return result;
        }
    }

    template<typename Result>
    static Result failure(FailsWith failsWith, DWORD error)
    {
        SetLastError(error);
        if constexpr (std::is_pointer_v<Result>) {
            return failsWith == FailsWith::minusOne ? reinterpret_cast<Result>(static_cast<intptr_t>(-1)) : nullptr;
        } else {
            switch (failsWith) {
            case FailsWith::zero: break;
            case FailsWith::minusOne: return static_cast<Result>(-1);
            case FailsWith::errorCode: return static_cast<Result>(error);
            }
            return Result{};
        }
    }

    const WatchedThreads m_watched;
    // Not std::mutex: that may itself call functions that are watched.
    mutable SRWLOCK m_lock = SRWLOCK_INIT;
    std::vector<std::shared_ptr<Call>> m_calls;
    std::vector<PlannedFailure> m_plan;
    std::string m_failed;
    /// Last: gone before what they write into.
    std::vector<std::shared_ptr<void>> m_redirections;
};

/// Runs `scenario` with the first watched call failing with `error`, then with the second, and so on; at last once
/// with nothing failing. It is told the name of the function that fails in this run, or nothing in the last one.
void forEachFailure(CallJournal &journal, DWORD error, const std::function<void()> &scenario);

} // namespace ruvo::test
