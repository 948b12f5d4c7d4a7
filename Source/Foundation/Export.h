#pragma once

#if __cplusplus < 202002L
#error KRVQTProcessClient needs C++20: compile with -std=c++20 or later
// Ends the compilation here, instead of with errors about everything that C++17 does not have.
#include <C++20>
#endif

/// Marks what the shared library exports; everything else in it is hidden.
#define KRV_EXPORT __attribute__((visibility("default")))
