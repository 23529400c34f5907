#pragma once

#include <cstdio>
#include <cstdlib>

// A property a fuzz target checks: when it fails, name it and abort, so that libFuzzer reports
// the input that broke it and keeps it as an artifact.
#define FUZZ_REQUIRE(condition)                                                               \
    do {                                                                                      \
        if (!(condition)) {                                                                   \
            std::fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition);      \
            std::abort();                                                                     \
        }                                                                                     \
    } while (false)
