#pragma once
// For state that offers nothing to wait on: checks `done` every few
// milliseconds until it holds or `limit` passes.

#include <chrono>
#include <functional>
#include <thread>

namespace ndpx::test {

inline bool waitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace ndpx::test
