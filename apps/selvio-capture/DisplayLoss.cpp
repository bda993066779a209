#include "DisplayLoss.h"

#include <gdk/x11/gdkx.h>
#include <gtk/gtk.h>

#include <utility>

namespace selvio::app {
namespace {

std::function<void()>& handler() {
    static std::function<void()> kept;
    return kept;
}

}  // namespace

void setDisplayLossHandler(std::function<void()> then) {
    if (!GDK_IS_X11_DISPLAY(gdk_display_get_default())) return;
    handler() = std::move(then);
    XSetIOErrorHandler([](Display*) -> int {  // in place of GDK's, which only ends the program
        handler()();
        return 0;
    });
}

}  // namespace selvio::app
