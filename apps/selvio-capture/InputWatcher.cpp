#include "InputWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

namespace selvio::app {
namespace {

sigset_t interrupts() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
    return set;
}

}  // namespace

void blockInterrupts() {
    const auto set = interrupts();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

InputWatcher::InputWatcher(std::shared_ptr<Queue> queue, std::function<void()> interrupted,
                           std::function<void()> entered)
    : queue_(std::move(queue)), interrupted_(std::move(interrupted)), entered_(std::move(entered)) {
    const auto set = interrupts();
    signals_ = ::signalfd(-1, &set, SFD_CLOEXEC);
    end_ = ::eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { watch(static_cast<bool>(entered_)); });
}

InputWatcher::~InputWatcher() {
    ::eventfd_write(end_, 1);
    thread_.join();
    ::close(signals_);
    ::close(end_);
}

void InputWatcher::watch(bool standardInput) {
    std::array<pollfd, 3> files{
        {{end_, POLLIN, 0}, {signals_, POLLIN, 0}, {standardInput ? STDIN_FILENO : -1, POLLIN, 0}}};
    for (;;) {
        if (::poll(files.data(), files.size(), -1) < 0 && errno != EINTR) return;
        if (files[0].revents != 0) return;
        if ((files[1].revents & POLLIN) != 0) {
            signalfd_siginfo signal{};
            if (::read(signals_, &signal, sizeof signal) == sizeof signal) queue_->async(interrupted_);
        }
        if (files[2].revents != 0) {
            std::array<char, 256> line{};
            if (::read(STDIN_FILENO, line.data(), line.size()) > 0) {
                queue_->async(entered_);
            } else {
                files[2].fd = -1;  // the terminal has been closed
            }
        }
    }
}

}  // namespace selvio::app
