#pragma once

#include <cstdio>
#include <cstdlib>

// What a fuzzer finds: ends the process, so that libFuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                                \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);              \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (false)
