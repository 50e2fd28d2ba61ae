#pragma once

// Puts a test between the program and Windows: while an ImportRedirection lives, every call of one DLL function
// that the executable imports goes to a function of the test's instead, from every thread and from every library
// that is linked into it (a redirected CreateEventW gets Qt's calls too).
//
//     const ImportRedirection<IMPORT(OpenProcess)> openProcess([&](DWORD access, BOOL inherit, DWORD id) {
//         return id == victim ? nullptr : openProcess.real(access, inherit, id);
//     });
//
// Redirections of the same function stack: `real` is what was there before, the newest goes first.

#include "windows/support/import_table.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

namespace ruvo::test {

template<std::size_t Size>
struct FunctionName
{
    char text[Size]{};
    consteval FunctionName(const char (&literal)[Size]) { std::copy_n(literal, Size, text); }
};

/// One imported function as a type: its signature and its name.
template<typename Signature, FunctionName Name>
struct Import
{
    using Function = Signature;
    static constexpr const char *name = Name.text;
};

/// Names an imported function as it is called in the import table: CreateFileW, not CreateFile.
#define IMPORT(function) ::ruvo::test::Import<decltype(function), #function>

template<typename ImportType, typename Signature = typename ImportType::Function>
class ImportRedirection;

template<typename ImportType, typename Result, typename... Arguments>
class ImportRedirection<ImportType, Result(Arguments...)>
{
public:
    using Replacement = std::function<Result(Arguments...)>;

    /// Throws std::runtime_error if the executable does not import the function. Other threads may call the
    /// replacement before the constructor is done, and may still be inside it after the destructor.
    explicit ImportRedirection(Replacement replacement) : m_outer(s_replacement.load()), m_real(current())
    {
        if (!m_outer)
            s_windows = function(PatchedImport::current(ImportType::name));
        s_replacement.store(std::make_shared<const Replacement>(std::move(replacement)));
        if (!m_outer)
            m_patch = std::make_unique<PatchedImport>(ImportType::name, reinterpret_cast<void *>(&dispatch));
    }

    ~ImportRedirection() { s_replacement.store(m_outer); }

    ImportRedirection(const ImportRedirection &) = delete;
    ImportRedirection &operator=(const ImportRedirection &) = delete;

    /// Calls what this redirection replaced.
    Result real(Arguments... arguments) const { return m_real(arguments...); }

    /// What a call reaches now: the newest redirection's replacement, or Windows.
    static Replacement current()
    {
        if (const auto replacement = s_replacement.load())
            return *replacement;
        return function(PatchedImport::current(ImportType::name));
    }

private:
    using Function = Result(Arguments...);

    static Function *function(void *address) { return reinterpret_cast<Function *>(address); }

    static Result dispatch(Arguments... arguments)
    {
        // A call may have read the table just before the redirection went.
        if (const auto replacement = s_replacement.load())
            return (*replacement)(arguments...);
        return s_windows.load()(arguments...);
    }

    inline static std::atomic<Function *> s_windows = nullptr;
    inline static std::atomic<std::shared_ptr<const Replacement>> s_replacement;

    const std::shared_ptr<const Replacement> m_outer;
    const Replacement m_real;
    std::unique_ptr<PatchedImport> m_patch;
};

} // namespace ruvo::test
