// The component's main queue in a program whose loop is GLib's.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/MainQueue.h>

#include <memory>

namespace selvio {

/// Has GLib's main context of the calling thread drain the queue, delayed blocks in time, until the result is released.
/// Takes the queue's wake-up hook. A loop that is run from within a block of the queue does not drain it. Main thread.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<void> drainFromGLib(std::shared_ptr<MainQueue> queue);

}  // namespace selvio
