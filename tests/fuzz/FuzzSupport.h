// What the fuzzers share.
#pragma once

#include <unistd.h>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>

namespace selvio::test {

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

/// A file in memory with the input's bytes; its path has no end of line.
class InputFile {
public:
    InputFile(const std::uint8_t* data, std::size_t size) {
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    ~InputFile() { ::unlink(path_.c_str()); }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }

private:
    const std::string path_ = "/dev/shm/selvio_fuzz_" + std::to_string(::getpid());
};

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

}  // namespace selvio::test
