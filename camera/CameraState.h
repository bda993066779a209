// What a camera remembers, shared with those who work for it on other queues.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureCameraDelegate.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCameraParameters.h>
#include <SelvioFacialCapture/base/CallGate.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace selvio {

/// The place of a camera's delegate. A recording that outlives its camera shares it, so that a delegate taken away is
/// not called even then. Any thread.
class DelegateSlot {
public:
    void set(std::weak_ptr<SelvioFacialCaptureCameraDelegate> delegate) { mutex_.set(delegate_, std::move(delegate)); }
    /// Null once the host has released it.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureCameraDelegate> get() const {
        return mutex_.get(delegate_).lock();
    }

    /// Calls a member of the delegate, unless it is not implemented or the slot has been closed. No lock is held. The
    /// delegate is held inside the gate only: who closes it may then be the last to hold the delegate.
    template <typename... Parameters, typename... Arguments>
    void tell(std::function<void(Parameters...)> SelvioFacialCaptureCameraDelegate::*member,
              const Arguments&... arguments) {
        gate_.pass([&] {
            const auto delegate = get();
            if (delegate && (*delegate).*member) ((*delegate).*member)(arguments...);
        });
    }
    /// From its return on `tell` calls nothing any more. Waits for the calls that run, unless one of them runs on the
    /// calling thread.
    void close() { gate_.close(); }

private:
    mutable MemberMutex mutex_;
    std::weak_ptr<SelvioFacialCaptureCameraDelegate> delegate_;  // guarded by mutex_
    CallGate gate_;
};

/// The properties of one camera but for its delegate, with their defaults.
struct CameraValues {
    bool configured = false;
    bool analyzeRGBVideo = true;
    bool detectPDF417 = false;
    bool shouldRecord = true;
    bool deliverDepthData = false;
    bool isTorchON = false;
    std::shared_ptr<SelvioFacialCaptureCameraParameters> parameters;
    std::shared_ptr<CaptureDevice> videoDevice;
    CaptureDevicePosition devicePosition = CaptureDevicePosition::Back;
    std::shared_ptr<CaptureDeviceInput> videoInput;
    std::shared_ptr<CaptureDevice> audioDevice;
    std::shared_ptr<CaptureDeviceInput> audioInput;
    /// The session's inputs. A configuration of a configured camera is refused, and its own input is not among them.
    std::vector<std::shared_ptr<CaptureDeviceInput>> addedInputs;
    std::shared_ptr<VideoDataOutput> videoDataOutput;
    std::shared_ptr<AudioDataOutput> audioDataOutput;
    std::shared_ptr<MetadataOutput> metaDataOutput;
    /// Kept here so that an output that releases its queue does not have to wait for the queue's end.
    std::shared_ptr<Queue> metaDataQueue;
    std::shared_ptr<CaptureDeviceDiscoverySession> discoverySession;
    std::shared_ptr<PreviewLayer> videoPreviewLayer;
    std::shared_ptr<AssetWriter> assetWriter;
    std::shared_ptr<AssetWriterInput> writerVideoInput;
    std::shared_ptr<AssetWriterInput> writerAudioInput;
    std::int64_t pixelBufferFormat = 0;
    std::optional<std::filesystem::path> videoRecordingUrl;
    std::optional<std::string> sessionPreset;
    VideoOrientation cameraOrientation = VideoOrientation::NotSet;
    Size resolution;
    Size desiredResolution;
};

/// `CameraValues` under one mutex. Values are copied in and out; nothing foreign runs while the mutex is held, so it
/// may be taken under any other lock. Any thread.
class CameraState {
public:
    template <typename T>
    [[nodiscard]] T get(T CameraValues::*member) const {
        return mutex_.get(values_.*member);
    }

    template <typename T>
    void set(T CameraValues::*member, std::type_identity_t<T> value) {
        mutex_.set(values_.*member, std::move(value));
    }

    /// Stores the size of the first frame; later ones change nothing.
    void setResolutionOnce(Size size);

    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureCameraDelegate> delegate() const { return delegateSlot_->get(); }
    [[nodiscard]] const std::shared_ptr<DelegateSlot>& delegateSlot() const { return delegateSlot_; }
    /// The session of the preview layer.
    [[nodiscard]] std::shared_ptr<CaptureSession> session() const;
    /// What the parameters say; false without parameters.
    [[nodiscard]] bool recordVideo() const;
    [[nodiscard]] bool recordAudio() const;

private:
    mutable MemberMutex mutex_;
    CameraValues values_;  // guarded by mutex_
    const std::shared_ptr<DelegateSlot> delegateSlot_ = std::make_shared<DelegateSlot>();
};

/// For assertions: whether this is the queue's thread. A queue that is ending still runs its last blocks when nobody
/// holds it any more.
[[nodiscard]] bool isOnOrEnding(const std::weak_ptr<Queue>& queue);

}  // namespace selvio
