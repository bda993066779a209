#include <SelvioFacialCapture/gtk/MainLoop.h>

#include <glib.h>

#include <chrono>
#include <new>
#include <utility>

namespace selvio {
namespace {

using std::chrono::milliseconds;

/// Allocated by GLib, which knows only `base`.
struct QueueSource {
    GSource base;
    std::shared_ptr<MainQueue> queue;
};

QueueSource& from(GSource* source) {
    return *reinterpret_cast<QueueSource*>(source);
}

gboolean prepare(GSource* source, gint* timeout) {
    const auto wait = from(source).queue->timeUntilNextBlock();
    *timeout = wait ? static_cast<gint>(std::chrono::ceil<milliseconds>(*wait).count()) : -1;
    return *timeout == 0 ? TRUE : FALSE;
}

gboolean check(GSource* source) {
    const auto wait = from(source).queue->timeUntilNextBlock();
    return wait && *wait == wait->zero() ? TRUE : FALSE;
}

gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
    const auto queue = from(source).queue;  // a block may release the source
    queue->drain();
    return G_SOURCE_CONTINUE;
}

void finalize(GSource* source) {
    from(source).queue.~shared_ptr();
}

}  // namespace

std::shared_ptr<void> drainFromGLib(std::shared_ptr<MainQueue> queue) {
    static GSourceFuncs functions{prepare, check, dispatch, finalize, nullptr, nullptr};
    GSource* const source = g_source_new(&functions, sizeof(QueueSource));
    new (&from(source).queue) std::shared_ptr<MainQueue>(queue);
    g_source_set_name(source, queue->label().c_str());
    const std::shared_ptr<GMainContext> context(g_main_context_ref_thread_default(), g_main_context_unref);
    g_source_attach(source, context.get());
    queue->setWakeUpHook([context] { g_main_context_wakeup(context.get()); });
    return {source, [queue = std::move(queue)](GSource* ended) {
                queue->setWakeUpHook({});
                g_source_destroy(ended);
                g_source_unref(ended);
            }};
}

}  // namespace selvio
