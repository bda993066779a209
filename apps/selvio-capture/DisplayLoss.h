// What happens when the display is lost while its window is open.
#pragma once

#include <functional>

namespace selvio::app {

/// Has `then` called, in the middle of what GTK does, when the connection to an X display breaks. Cannot be undone:
/// the program ends when it returns. Nothing of GTK may be called any more. After GTK's initialisation.
void setDisplayLossHandler(std::function<void()> then);

}  // namespace selvio::app
