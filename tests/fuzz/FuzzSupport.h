// What the fuzzers share.
#pragma once

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string_view>

#include "support/TemporaryDirectory.h"

namespace selvio {

/// What a fuzzer's own file says: calls `require` for all that must hold of any input.
void check(std::string_view input);

/// A broken promise; the fuzzer keeps the input.
inline void require(bool kept, const char* promise) {
    if (kept) return;
    std::cerr << "broken: " << promise << std::endl;
    std::abort();
}

/// A reason that a person can read.
inline void requireReason(const std::string& reason) {
    require(!reason.empty() && reason.find('\n') == std::string::npos, "a failure gives its reason in one line");
}

/// The path, without an end of line, of a file with the input's bytes.
inline std::string fileWith(std::string_view input) {
    static const TemporaryDirectory directory;
    return directory.write("input", std::string(input));
}

/// What a function prints, kept from the terminal.
template <typename Function>
std::string printedBy(const Function& function) {
    std::ostringstream text;
    auto* const out = std::cout.rdbuf(text.rdbuf());
    auto* const err = std::cerr.rdbuf(text.rdbuf());
    function();
    std::cout.rdbuf(out);
    std::cerr.rdbuf(err);
    return text.str();
}

}  // namespace selvio
