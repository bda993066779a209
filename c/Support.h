// What the functions of the C interface have in common: handles, errors, callbacks.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <SelvioFacialCapture/base/CallGate.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/c/selvio_facial_capture.h>
#include <SelvioFacialCapture/imaging/SampleBuffer.h>
#include <SelvioFacialCapture/linux/Device.h>
#include <SelvioFacialCapture/platform/Platform.h>
#include <SelvioFacialCapture/simulated/SimulatedCaptureSystem.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace selvio::c {

/// Ends a function with this error text.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// For the exception that is being handled.
void reportException(char** error) noexcept;

/// Runs the body of a function: what it throws becomes the error text, and the result is then `failed`.
template <typename Result, typename Body>
Result guardedOr(Result failed, char** error, const Body& body) noexcept {
    if (error) *error = nullptr;
    try {
        return body();
    } catch (...) {
        reportException(error);
        return failed;
    }
}

/// The same with an empty result after an error; of a body without a result, whether it ran to its end.
template <typename Body>
auto guarded(char** error, const Body& body) noexcept {
    if constexpr (std::is_void_v<decltype(body())>) {
        return guardedOr(false, error, [&] { return body(), true; });
    } else {
        return guardedOr(decltype(body())(), error, body);
    }
}

/// What an argument points to; `name` says which one it is.
template <typename T>
T& required(T* pointer, const char* name) {
    if (!pointer) throw Failure(std::string(name) + " is NULL");
    return *pointer;
}

/// Fails for a format that the C interface does not know.
inline void checkPixelFormat(std::uint32_t format) {
    if (format != SELVIO_PIXEL_FORMAT_BGRA && format != SELVIO_PIXEL_FORMAT_NV12)
        throw Failure("pixel format " + std::to_string(format) + " is neither BGRA nor NV12");
}

/// A copy that the caller frees.
void* copyForCaller(const void* bytes, std::size_t size);

/// A host's callbacks and the gate before them.
template <typename Struct>
struct Callbacks {
    Struct members{};
    CallGate gate{};

    /// Calls a member with `user` and these arguments, if there is one.
    template <typename... Parameters, typename... Arguments>
    void call(void (*Struct::*member)(void*, Parameters...), Arguments... arguments) {
        if (const auto callback = members.*member) gate.pass([&] { callback(members.user, arguments...); });
    }
};

/// The callbacks in force at one place, until others take their place.
template <typename Struct>
class Replaceable {
public:
    using Shared = std::shared_ptr<Callbacks<Struct>>;

    /// `install` gets what is to be called from now on: null for nothing. Then the former callbacks end.
    template <typename Install>
    void replace(const Struct* next, const Install& install) {
        auto callbacks = next ? std::make_shared<Callbacks<Struct>>() : nullptr;
        if (callbacks) callbacks->members = *next;
        {
            const std::lock_guard lock(mutex_);
            install(callbacks);
            current_.swap(callbacks);
        }
        if (callbacks) callbacks->gate.close();
    }

private:
    std::mutex mutex_;
    Shared current_;  // guarded by mutex_
};

}  // namespace selvio::c

// The handles.

struct selvio_platform {
    selvio::Platform ports;
    std::shared_ptr<selvio::LinuxScreen> screen;
    std::shared_ptr<selvio::SimulatedCaptureSystem> simulated;  // null on this machine's own cameras
};

struct selvio_parameters {
    std::shared_ptr<SelvioFacialCaptureParameters> object;
};

struct selvio_frame {
    std::shared_ptr<selvio::SampleBuffer> object;
};

struct selvio_results {
    std::shared_ptr<SelvioFacialCaptureResults> object;
};

struct selvio_analyzer {
    std::shared_ptr<SelvioFacialCaptureAnalyzer> object;
    std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate{};  // written by the callbacks' `install`
    selvio::c::Replaceable<selvio_analyzer_callbacks> callbacks{};
};
