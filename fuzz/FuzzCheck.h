// A broken promise of a parser stops the fuzz target like a crash would, so
// libFuzzer keeps the input and the replay test fails on it.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                    \
    do {                                                                                         \
        if (!(condition)) {                                                                      \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                        \
        }                                                                                        \
    } while (false)
