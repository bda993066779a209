// Collects what is logged while it lives.
#pragma once

#include <SelvioFacialCapture/base/Log.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/CallLog.h"

namespace selvio {

class LogCapture {
public:
    LogCapture()
        : previous_(
              setLogSink([messages = messages_](std::string_view message) { messages->add(std::string(message)); })) {}
    ~LogCapture() { setLogSink(std::move(previous_)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// What was logged since the last call.
    std::vector<std::string> take() { return messages_->take(); }

private:
    const std::shared_ptr<CallLog> messages_ = std::make_shared<CallLog>();  // of a thread that is still logging too
    LogSink previous_;
};

}  // namespace selvio
