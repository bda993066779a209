// Which event the log keeps for a status or a pause.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>
#include <SelvioFacialCapture/SelvioFacialCaptureUxpEvent.h>

#include <cstdint>
#include <optional>

namespace selvio::rules {

/// The lighting statuses have no event of their own and are logged like a status outside the enumeration.
[[nodiscard]] SelvioFacialCaptureUxpEvent eventFor(SelvioFacialCaptureStatus status);

/// Reasons 1 to 4 have an event; any other has none.
[[nodiscard]] std::optional<SelvioFacialCaptureUxpEvent> eventForPause(std::int64_t reason);

}  // namespace selvio::rules
