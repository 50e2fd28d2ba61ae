#pragma once

#include "faults.h"
#include "journal.h"

namespace ruvo::winehost {

/// One call of a substituted function: its line in the journal, and the failure that a test has planned for it.
///
///     PlannedCall call("CreateIpForwardEntry2");
///     call.add("destination", …);
///     return call.finish([&] { return createRoute(*row); });
class PlannedCall : public JournalEntry
{
public:
    explicit PlannedCall(std::string_view function) : JournalEntry(function), m_fault(plannedFault(function)) {}

    /// The error of a failure that is planned for this call: nothing may be done then.
    std::optional<DWORD> fault() const { return m_fault; }

    /// For functions that return an error: does the work unless a failure is planned, and writes down what came.
    template<typename Work>
    DWORD finish(Work work)
    {
        const DWORD error = m_fault ? *m_fault : static_cast<DWORD>(work());
        addError(error);
        return error;
    }

    void addError(DWORD error)
    {
        add("result", error == NO_ERROR);
        if (error != NO_ERROR)
            add("error", error);
        if (m_fault)
            add("planned", true);
    }

private:
    const std::optional<DWORD> m_fault;
};

} // namespace ruvo::winehost
