#pragma once

#include "library/planned_call.h"

#include "common/winsock_headers.h"

namespace ruvo::winehost {

/// One call that returns an HRESULT, in the journal. A failure is planned as the number that the HRESULT is without a
/// sign: 2147942402 for 0x80070002.
class ComCall : public PlannedCall
{
public:
    using PlannedCall::PlannedCall;

    /// Does the work unless a failure is planned, and writes down what came; a success other than S_OK too.
    template<typename Work>
    HRESULT finish(Work work)
    {
        const HRESULT result = fault() ? static_cast<HRESULT>(*fault()) : work();
        add("result", SUCCEEDED(result));
        if (result != S_OK)
            add("error", static_cast<DWORD>(result));
        if (fault())
            add("planned", true);
        return result;
    }
};

} // namespace ruvo::winehost
