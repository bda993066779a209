// Programs that a test needs beside it.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace selvio::test {

/// A child process with pipes to its input and from its output. Ends with the object.
class Child {
public:
    explicit Child(std::vector<std::string> arguments) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
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
    /// Empty at the end of the output.
    std::string readLine() {
        char line[1024] = "";
        if (output_ == nullptr || std::fgets(line, sizeof line, output_) == nullptr) return "";
        return std::string(line, std::strcspn(line, "\n"));
    }
    bool killAtEnd = true;

private:
    pid_t pid_ = -1;
    int input_ = -1;
    std::FILE* output_ = nullptr;
};

}  // namespace selvio::test
