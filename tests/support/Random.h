// A test's own random choices: the same in every run and with every standard library.
#pragma once

#include <iterator>
#include <random>

namespace selvio {

struct Random {
    explicit Random(unsigned seed) : engine(seed) {}
    /// From 0 to `end` - 1.
    int below(int end) { return static_cast<int>(engine() % static_cast<unsigned>(end)); }
    bool oneIn(int n) { return below(n) == 0; }
    const auto& any(const auto& values) { return values[engine() % std::size(values)]; }

    std::mt19937 engine;
};

}  // namespace selvio
