// Time is a port, so that tests control it.
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <chrono>
#include <memory>

namespace selvio {

/// Source of time. Every operation may be called on any thread.
class SELVIO_EXPORT Clock {
public:
    virtual ~Clock() = default;
    /// Seconds since 1 January 2001, 00:00:00 UTC.
    [[nodiscard]] virtual double secondsSinceReferenceDate() const = 0;
    /// A time that never goes back, from an arbitrary origin.
    [[nodiscard]] virtual std::chrono::nanoseconds monotonicTime() const = 0;
};

/// The system's clocks.
class SELVIO_EXPORT SystemClock final : public Clock {
public:
    [[nodiscard]] double secondsSinceReferenceDate() const override;
    [[nodiscard]] std::chrono::nanoseconds monotonicTime() const override;
};

}  // namespace selvio
