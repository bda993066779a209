#include "c/Support.h"

#include <SelvioFacialCapture/SelvioFacialCaptureVersion.h>
#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace selvio::c {
namespace {

char* duplicate(const char* text) noexcept {
    const std::size_t size = std::strlen(text) + 1;
    auto* const copy = static_cast<char*>(std::malloc(size));
    return copy ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}

struct LogReceiver {
    void* user = nullptr;
    void (*receive)(void* user, const char* message) = nullptr;
};

}  // namespace

void reportException(char** error) noexcept {
    if (!error) return;
    try {
        throw;
    } catch (const std::exception& exception) {
        *error = duplicate(exception.what());
    } catch (...) {
        *error = duplicate("unknown failure");
    }
}

void* copyForCaller(const void* bytes, std::size_t size) {
    void* const copy = std::malloc(std::max<std::size_t>(size, 1));
    if (!copy) throw std::bad_alloc();
    return std::memcpy(copy, bytes, size);
}

}  // namespace selvio::c

using namespace selvio::c;

const char* selvio_version() {
    static const std::string version = SelvioFacialCapture::version();
    return version.c_str();
}

void selvio_free(void* memory) {
    std::free(memory);
}

bool selvio_set_log_callback(selvio_log_callback callback, void* user, char** error) {
    static Replaceable<LogReceiver> inForce;
    return guarded(error, [&] {
        const LogReceiver receiver{user, callback};
        inForce.replace(callback ? &receiver : nullptr, [](const Replaceable<LogReceiver>::Shared& next) {
            if (!next) return (void)selvio::setLogSink({});
            selvio::setLogSink(
                [next](std::string_view message) { next->call(&LogReceiver::receive, std::string(message).c_str()); });
        });
    });
}
