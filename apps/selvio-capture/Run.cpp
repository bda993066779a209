// `run`: finds the source, and lets a session capture from it.
#include "Commands.h"
#include "OutputFiles.h"
#include "RunOutput.h"
#include "Session.h"
#include "Source.h"
#include "ViewWindow.h"

#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <mutex>
#include <thread>

namespace selvio::app {
namespace {

sigset_t interrupts() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
    return set;
}

/// Keeps SIGINT, SIGTERM and SIGHUP from ending the process, and SIGPIPE from being sent. Call it before any thread is
/// started: threads inherit it.
void blockInterrupts() {
    const auto set = interrupts();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

/// Waits for interrupts and, if wanted, lines on standard input, on a thread of its own, and submits a block for each
/// to `queue`.
class InputWatcher {
public:
    InputWatcher(std::shared_ptr<Queue> queue, std::function<void()> interrupted, std::function<void()> entered)
        : queue_(std::move(queue)), interrupted_(std::move(interrupted)), entered_(std::move(entered)) {
        const auto set = interrupts();
        signals_ = ::signalfd(-1, &set, SFD_CLOEXEC);
        end_ = ::eventfd(0, EFD_CLOEXEC);
        thread_ = std::thread([this] { watch(static_cast<bool>(entered_)); });
    }
    InputWatcher(const InputWatcher&) = delete;
    InputWatcher& operator=(const InputWatcher&) = delete;
    /// Joins the thread; blocks already submitted may still run.
    ~InputWatcher() {
        ::eventfd_write(end_, 1);
        thread_.join();
        ::close(signals_);
        ::close(end_);
    }

private:
    void watch(bool standardInput) {
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

    const std::shared_ptr<Queue> queue_;
    const std::function<void()> interrupted_;
    const std::function<void()> entered_;  // empty: standard input is left alone
    int signals_ = -1;
    int end_ = -1;
    std::thread thread_;
};

/// Makes queues and keeps them to its own end, where their blocks have run and their threads are joined. Without it the
/// last block of a queue may turn out to be the last owner of its object, and a thread would still be about when the
/// program ends.
class KeptQueues {
public:
    KeptQueues() = default;
    KeptQueues(const KeptQueues&) = delete;
    KeptQueues& operator=(const KeptQueues&) = delete;
    /// Runs every block, those that blocks of other queues submit included, while the queues are still held: whoever
    /// else owned one has released it afterwards.
    ~KeptQueues() {
        for (int round = 0; round < 2; ++round) {
            for (const auto& queue : queues_) queue->drain();
        }
    }

    /// Any thread.
    std::shared_ptr<Queue> make(const std::string& label) {
        const std::lock_guard lock(mutex_);
        return queues_.emplace_back(std::make_shared<SerialQueue>(label));
    }

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<SerialQueue>> queues_;  // guarded by mutex_
};

/// A session and its queues, which end after it.
struct KeptSession {
    KeptQueues queues;
    std::shared_ptr<Session> session;
};

}  // namespace

ExitCode perform(const RunOptions& options) {
    blockInterrupts();
    const auto language = languageOfLocale();
    if (const auto error = prepareOutputDirectory(options.out)) return refuse(ExitCode::NotWritten, *error);
    auto platform = makeLinuxPlatform();
    const auto chosen = useSource(platform, options);
    if (const auto* failure = std::get_if<SourceFailure>(&chosen)) return refuse(failure->code, {failure->message});
    if (const auto error = waitForVisionModels()) return refuse(ExitCode::UnreadableInput, *error);
    const auto& source = std::get<Source>(chosen);
    const std::string mark = options.parameters->cameraParameters()->showRecordingUI() ? "[REC] " : "";
    const auto output = options.json ? makeJsonOutput(std::cout)
                                     : makePersonOutput(std::cout, ::isatty(STDOUT_FILENO) == 1, language, mark);
    output->message(text(Phrase::Source, language) + ": " + source.description);

    std::unique_ptr<ViewWindow> window;
    if (options.preview.value_or(::isatty(STDOUT_FILENO) == 1)) {
        window = ViewWindow::open(platform, options, language, *output);
        if (!window) complain("there is no display to show the camera on; the guidance is here");
    }
    auto sessionOptions = options;
    sessionOptions.attended = window != nullptr;
    const auto beginSession = [&](RunOutput& to, std::function<void()> ended) {
        const auto kept = std::make_shared<KeptSession>();
        auto own = platform;
        own.makeSerialQueue = [queues = &kept->queues](const std::string& label) { return queues->make(label); };
        kept->session = Session::make(std::move(own), sessionOptions, source, to, language, std::move(ended));
        return std::shared_ptr<Session>(kept, kept->session.get());
    };

    const auto queue = MainQueue::shared();
    const bool enterSelects =
        options.parameters->mode() == SelvioFacialCaptureModeManual && ::isatty(STDIN_FILENO) == 1;
    if (enterSelects) std::cerr << text(Phrase::PressEnter, language) << std::endl;
    const auto whenEntered = [enterSelects](std::function<void()> entered) {
        return enterSelects ? std::move(entered) : std::function<void()>();
    };
    if (window) {
        const InputWatcher watcher(
            queue, [&window] { window->cancel(); }, whenEntered([&window] { window->takePicture(); }));
        return window->run(beginSession);
    }
    const auto session = beginSession(*output, [queue] { queue->quit(); });
    const InputWatcher watcher(
        queue, [&session] { session->cancelByPerson(); }, whenEntered([&session] { session->takePicture(); }));
    queue->async([&session] { session->begin(); });
    queue->run();
    return session->exitCode();
}

}  // namespace selvio::app
