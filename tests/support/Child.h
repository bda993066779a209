// Programs that a test needs beside it.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace selvio::test {

/// A child process with pipes to its input and from its output. Ends with the object.
class Child {
public:
    explicit Child(std::vector<std::string> arguments) {
        std::array<int, 2> in{};
        std::array<int, 2> out{};
        if (::pipe2(in.data(), O_CLOEXEC) != 0 || ::pipe2(out.data(), O_CLOEXEC) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            std::vector<char*> pointers;
            for (std::string& argument : arguments) pointers.push_back(argument.data());
            pointers.push_back(nullptr);
            ::execvp(pointers[0], pointers.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        output_ = ::fdopen(out[0], "r");
    }
    ~Child() {
        ::close(input_);
        if (killAtEnd) ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        if (output_ != nullptr) std::fclose(output_);
    }
    /// Nothing at the end of the output.
    std::optional<std::string> readLine() {
        char line[1024];
        if (output_ == nullptr || std::fgets(line, sizeof line, output_) == nullptr) return std::nullopt;
        std::string text(line);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        return text;
    }
    bool killAtEnd = true;

private:
    pid_t pid_ = -1;
    int input_ = -1;
    std::FILE* output_ = nullptr;
};

}  // namespace selvio::test
