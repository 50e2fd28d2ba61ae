#include "support/wine_gaps.h"

namespace ruvo::test {

bool wineAppendsInTwoSteps()
{
    return false;
}

} // namespace ruvo::test
