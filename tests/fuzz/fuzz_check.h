#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the run as a finding if `condition` does not hold.
#define FUZZ_CHECK(condition)                                                                                        \
    do {                                                                                                             \
        if (!(condition)) {                                                                                          \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);                      \
            std::abort();                                                                                            \
        }                                                                                                            \
    } while (false)
