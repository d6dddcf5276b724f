// A fuzz target's assertion: it must end the process, for libFuzzer to keep
// the input that broke it.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                           \
  do {                                                                             \
    if (!(cond)) {                                                                 \
      std::fprintf(stderr, "%s:%d check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                \
    }                                                                              \
  } while (0)
