#include <SelvioFacialCapture/base/Clock.h>

namespace selvio {

double SystemClock::secondsSinceReferenceDate() const {
    constexpr double kReferenceDate = 978307200.0;  // 2001-01-01T00:00:00Z in seconds since 1970
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(sinceEpoch).count() - kReferenceDate;
}

std::chrono::nanoseconds SystemClock::monotonicTime() const {
    return std::chrono::steady_clock::now().time_since_epoch();
}

}  // namespace selvio
