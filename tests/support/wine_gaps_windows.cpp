#include "support/wine_gaps.h"

#include <windows.h>

namespace ruvo::test {

namespace {

bool isWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

} // namespace

bool wineAppendsInTwoSteps()
{
    return isWine();
}

} // namespace ruvo::test
