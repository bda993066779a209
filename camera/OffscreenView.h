// The view of a camera that nobody looks at.
#pragma once

#include <SelvioFacialCapture/platform/View.h>

#include <memory>

namespace selvio {

/// A view without a screen: its layer keeps the session, draws nothing and has no connection.
[[nodiscard]] std::shared_ptr<View> makeOffscreenView();

}  // namespace selvio
