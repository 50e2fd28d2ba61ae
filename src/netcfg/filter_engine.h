#pragma once

#include "netcfg/filter_handles.h"

#include <cstdint>
#include <expected>
#include <string>

namespace ruvo {

struct FilterRule;

/// What the condition of a rule is compared with. A rule uses the member that its condition names.
struct FilterOperand
{
    /// Borrowed.
    FWP_BYTE_BLOB *program = nullptr;
    std::uint32_t interfaceIndex = 0;
};

/// A dynamic session with the Windows Filtering Platform and one sublayer of our own in it. Whatever is added goes
/// with the session, even if the process dies. One thread. Logs nothing: every failure is Windows' code.
class FilterEngine
{
public:
    /// Makes up the key of the sublayer. Should Windows fail to, it is zero, and the filters stand in Windows'
    /// default sublayer, where other products' filters may come before them; addSubLayer tells of it.
    FilterEngine();

    DWORD open();
    bool isOpen() const { return static_cast<bool>(m_session); }
    /// FWP_E_ALREADY_EXISTS is one of its answers, and so is the error of a key that could not be made.
    DWORD addSubLayer();
    /// The id by which the filter is known from then on.
    std::expected<std::uint64_t, DWORD> add(const FilterRule &rule, const FilterOperand &operand);
    /// Whether a filter is still there; with what error it is not. A look-up that succeeds and finds none has
    /// NO_ERROR.
    std::expected<void, DWORD> find(std::uint64_t id) const;
    void remove(std::uint64_t id);
    void removeSubLayer();
    void close() { m_session.reset(); }

private:
    FilterSession m_session;
    GUID m_subLayer{};
    HRESULT m_keyResult;
};

/// A program as filters know it, by its full path. The file has to exist.
std::expected<ProgramId, DWORD> programId(const std::wstring &path);

} // namespace ruvo
