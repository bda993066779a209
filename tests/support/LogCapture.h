// Collects what is logged while it lives.
#pragma once

#include <SelvioFacialCapture/base/Log.h>

#include <string>
#include <utility>
#include <vector>

#include "support/CallLog.h"

namespace selvio {

class LogCapture {
public:
    explicit LogCapture(CallLog messages = {})
        : messages_(messages),
          previous_(setLogSink([messages](std::string_view line) mutable { messages.add(std::string(line)); })) {}
    ~LogCapture() { setLogSink(std::move(previous_)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// What was logged since the last call.
    std::vector<std::string> take() { return messages_.take(); }

private:
    CallLog messages_;  // shared with a thread that is still logging
    LogSink previous_;
};

}  // namespace selvio
