// Collects what is logged while it lives.
#pragma once

#include <SelvioFacialCapture/base/Log.h>

#include <utility>

#include "support/CallLog.h"

namespace selvio {

/// A thread that is still logging shares the list.
struct LogCapture : CallLog {
    explicit LogCapture(const CallLog& messages = {})
        : CallLog(messages), previous_(setLogSink([=](std::string_view line) { messages.add(line); })) {}
    ~LogCapture() { setLogSink(std::move(previous_)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

private:
    LogSink previous_;
};

}  // namespace selvio
