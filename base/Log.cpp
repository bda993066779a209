#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/base/MemberMutex.h>

#include <cstdio>
#include <memory>
#include <utility>

namespace selvio {
namespace {

struct LogState {
    MemberMutex mutex;
    std::shared_ptr<const LogSink> sink;  // guarded by mutex; null means standard error
};

LogState& state() {
    static LogState* const instance = new LogState;  // outlives every thread that may still log at exit
    return *instance;
}

}  // namespace

void log(std::string_view message) {
    LogState& s = state();
    if (const auto sink = s.mutex.get(s.sink)) return (*sink)(message);
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
}

LogSink setLogSink(LogSink sink) {
    LogState& s = state();
    auto next = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
    {
        const std::lock_guard lock(s.mutex);
        s.sink.swap(next);
    }
    return next ? *next : LogSink();
}

}  // namespace selvio
