// Collects what is logged while it lives.
#pragma once

#include <SelvioFacialCapture/base/Log.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace selvio {

class LogCapture {
public:
    LogCapture()
        : previous_(setLogSink([this](std::string_view message) {
              const std::lock_guard lock(mutex_);
              messages_.emplace_back(message);
          })) {}
    ~LogCapture() { setLogSink(std::move(previous_)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// What was logged since the last call.
    std::vector<std::string> take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(messages_, {});
    }

private:
    std::mutex mutex_;
    std::vector<std::string> messages_;  // guarded by mutex_
    LogSink previous_;
};

}  // namespace selvio
