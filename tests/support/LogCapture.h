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
    LogCapture() : previous_(setLogSink([this](std::string_view message) { messages_.add(std::string(message)); })) {}
    ~LogCapture() { setLogSink(std::move(previous_)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// What was logged since the last call.
    std::vector<std::string> take() { return messages_.take(); }

private:
    CallLog messages_;
    LogSink previous_;
};

}  // namespace selvio
