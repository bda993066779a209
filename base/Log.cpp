#include <SelvioFacialCapture/base/Log.h>

#include <cstdio>
#include <mutex>
#include <utility>

namespace selvio {
namespace {

struct LogState {
    std::mutex mutex;
    LogSink sink;  // guarded by mutex; empty means standard error
};

LogState& state() {
    static LogState* const instance = new LogState;  // outlives every thread that may still log at exit
    return *instance;
}

}  // namespace

void log(std::string_view message) {
    LogState& s = state();
    const std::lock_guard lock(s.mutex);
    if (s.sink) {
        s.sink(message);
    } else {
        std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
    }
}

LogSink setLogSink(LogSink sink) {
    LogState& s = state();
    const std::lock_guard lock(s.mutex);
    return std::exchange(s.sink, std::move(sink));
}

}  // namespace selvio
