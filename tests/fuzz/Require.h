#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the run where a property does not hold, as a fuzzer expects it.
#define REQUIRE(condition)                                                       \
    do {                                                                         \
        if (!(condition)) {                                                      \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                        \
        }                                                                        \
    } while (false)
