// Which event the log keeps for a status.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>
#include <SelvioFacialCapture/SelvioFacialCaptureUxpEvent.h>

namespace selvio::rules {

/// The lighting statuses have no event of their own and are logged like a status outside the enumeration.
[[nodiscard]] SelvioFacialCaptureUxpEvent eventFor(SelvioFacialCaptureStatus status);

}  // namespace selvio::rules
