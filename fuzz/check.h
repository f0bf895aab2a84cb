// A property of a fuzz target that does not hold is a crash: libFuzzer keeps
// the input, and the replay names the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                      \
    do {                                                                                      \
        if (!(cond)) {                                                                        \
            std::fprintf(stderr, "%s:%d: property does not hold: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                     \
        }                                                                                     \
    } while (0)
