#pragma once

#include <chrono>
#include <thread>

namespace selvio {

/// Waits for what nothing announces, ten seconds at most.
template <typename Condition>
bool comesTrue(Condition condition) {
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10); !condition();) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace selvio
