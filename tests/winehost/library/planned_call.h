#pragma once

#include "faults.h"
#include "journal.h"

namespace ruvo::winehost {

/// One call of a substituted function: its line in the journal, and the delay and failure that a test has planned for
/// it. The delay is over when the constructor returns; the line has its milliseconds as "delayed".
///
///     PlannedCall call("CreateIpForwardEntry2");
///     call.add("destination", …);
///     return call.finish([&] { return createRoute(*row); });
class PlannedCall : public JournalEntry
{
public:
    explicit PlannedCall(std::string_view function) : JournalEntry(function), m_planned(plannedOutcome(function))
    {
        if (m_planned.delayedMs > 0)
            add("delayed", m_planned.delayedMs);
    }

    /// The error of a failure that is planned for this call: nothing may be done then.
    std::optional<DWORD> fault() const { return m_planned.error; }

    /// For functions that return an error: does the work unless a failure is planned, and writes down what came.
    template<typename Work>
    DWORD finish(Work work)
    {
        const DWORD error = m_planned.error ? *m_planned.error : static_cast<DWORD>(work());
        addError(error);
        return error;
    }

    void addError(DWORD error)
    {
        add("result", error == NO_ERROR);
        if (error != NO_ERROR)
            add("error", error);
        if (m_planned.error)
            add("planned", true);
    }

private:
    const PlannedOutcome m_planned;
};

} // namespace ruvo::winehost
