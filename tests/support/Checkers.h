// Tests that need an independent checker (a tool, a data set, the codec
// plug-in, an X server) skip when it is missing on a developer's machine. With
// KY_REQUIRE_CHECKERS=1 in the environment (CI sets it) a missing checker
// fails the test instead, so a green CI run means every check ran.
#pragma once
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace kestrelyn::test {

inline bool CheckersRequired() {
    const char* v = std::getenv("KY_REQUIRE_CHECKERS");
    return v && *v && std::strcmp(v, "0") != 0;
}

} // namespace kestrelyn::test

// Skips the test (or fails it when checkers are required) unless `present`.
#define KY_REQUIRE_CHECKER(present, why)                                                           \
    do {                                                                                           \
        if (!(present)) {                                                                          \
            if (::kestrelyn::test::CheckersRequired())                                             \
                GTEST_FAIL() << "checker missing and KY_REQUIRE_CHECKERS is set: " << why;         \
            else                                                                                   \
                GTEST_SKIP() << why;                                                               \
        }                                                                                          \
    } while (0)
