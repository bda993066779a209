// The platform log: one line of fixed English text per failure.
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <functional>
#include <string_view>

namespace selvio {

/// Receives one message without a trailing line feed. Called on the thread that logs, with no lock of the component
/// held: it may call any operation, and two threads that log at once call it at once. Only a camera's `stop` and
/// `shutdown` it must submit to a queue: another thread may be inside one of them and wait for the thread that logs.
using LogSink = std::function<void(std::string_view message)>;

/// Writes one message to the process's log sink (standard error unless replaced). Any thread.
SELVIO_EXPORT void log(std::string_view message);

/// Replaces the sink of the whole process and returns the one before; an empty sink restores standard error. A call
/// that another thread has begun may still be under way in the old sink. Any thread.
SELVIO_EXPORT LogSink setLogSink(LogSink sink);

}  // namespace selvio
