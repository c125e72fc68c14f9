#pragma once
// How a fuzz target reports a broken invariant: a line on stderr, then an
// abort, which libFuzzer records as a crash together with the input.

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace ndpx::fuzz {

[[noreturn]] inline void fail(const char* what, std::string_view detail = {}) {
    std::fprintf(stderr, "invariant broken: %s: %.*s\n", what, static_cast<int>(detail.size()),
                 detail.data());
    std::abort();
}

inline void check(bool holds, const char* what, std::string_view detail = {}) {
    if (!holds) {
        fail(what, detail);
    }
}

}  // namespace ndpx::fuzz
