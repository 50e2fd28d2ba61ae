#include "app/entry.h"

int wmain(int argc, wchar_t **argv)
{
    return ruvo::runEntry(argc, argv);
}
