#pragma once

#include <QtGlobal>

namespace ruvo::test {

/// A count of a large test: `whole` with RUVOD_WHOLE=1 in the environment, else its share of an ordinary run.
inline int volume(int whole, int share)
{
    return qEnvironmentVariableIntValue("RUVOD_WHOLE") == 1 ? whole : share;
}

} // namespace ruvo::test
