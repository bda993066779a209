// Ports: cameras, microphones and the capture session that joins them to outputs.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/Queue.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/imaging/SampleBuffer.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace selvio {

enum class MediaType { Video, Audio };

enum class CaptureDevicePosition : std::int64_t { Unspecified = 0, Back = 1, Front = 2 };

/// The orientation in which frames leave a connection. Other values pass through.
enum class VideoOrientation : std::int64_t {
    NotSet = 0,
    Portrait = 1,
    PortraitUpsideDown = 2,
    LandscapeRight = 3,
    LandscapeLeft = 4
};

enum class AuthorizationStatus : std::int64_t { NotDetermined = 0, Restricted = 1, Denied = 2, Authorized = 3 };

enum class TorchMode : std::int64_t { Off = 0, On = 1 };

enum class FocusMode : std::int64_t { Locked = 0, AutoFocus = 1, ContinuousAutoFocus = 2 };

/// Session presets: named frame sizes in landscape terms.
inline constexpr const char* kCaptureSessionPreset1920x1080 = "1920x1080";
inline constexpr const char* kCaptureSessionPreset1280x720 = "1280x720";
inline constexpr const char* kCaptureSessionPreset640x480 = "640x480";
inline constexpr const char* kCaptureSessionPresetHigh = "High";

inline constexpr const char* kCaptureDeviceTypeBuiltInWideAngleCamera = "BuiltInWideAngleCamera";
inline constexpr const char* kMetadataObjectTypePDF417Code = "PDF417";
inline constexpr const char* kVideoGravityResizeAspectFill = "ResizeAspectFill";
inline constexpr const char* kFileTypeMPEG4 = "MPEG4";
inline constexpr const char* kVideoCodecTypeH264 = "H264";
inline constexpr const char* kVideoCodecTypeHEVC = "HEVC";
inline constexpr const char* kVideoAverageBitRateKey = "AverageBitRate";

/// One format in which a camera can deliver frames.
struct CaptureDeviceFormat {
    VideoFormatDescription formatDescription;
    double maxFrameRate = 0.0;  ///< frames a second
    friend bool operator==(const CaptureDeviceFormat&, const CaptureDeviceFormat&) = default;
};

/// A camera or a microphone. Settings are changed between `lockForConfiguration` and `unlockForConfiguration`. Any
/// thread.
class SELVIO_EXPORT CaptureDevice {
public:
    virtual ~CaptureDevice() = default;
    [[nodiscard]] virtual std::string uniqueId() const = 0;
    [[nodiscard]] virtual std::string localizedName() const = 0;
    [[nodiscard]] virtual MediaType mediaType() const = 0;
    [[nodiscard]] virtual CaptureDevicePosition position() const = 0;
    /// In the device's own order; empty for a microphone.
    [[nodiscard]] virtual std::vector<CaptureDeviceFormat> formats() const = 0;
    [[nodiscard]] virtual std::optional<CaptureDeviceFormat> activeFormat() const = 0;

    virtual std::optional<Error> lockForConfiguration() = 0;
    virtual void unlockForConfiguration() = 0;
    virtual void setActiveFormat(const CaptureDeviceFormat& format) = 0;
    [[nodiscard]] virtual bool isFocusPointOfInterestSupported() const = 0;
    /// In the device's normalized coordinates; (0.5, 0.5) is the centre.
    virtual void setFocusPointOfInterest(Point point) = 0;
    [[nodiscard]] virtual bool isFocusModeSupported(FocusMode mode) const = 0;
    virtual void setFocusMode(FocusMode mode) = 0;
    [[nodiscard]] virtual bool hasTorch() const = 0;
    virtual void setTorchMode(TorchMode mode) = 0;
};

/// A device, ready to be added to a session.
class SELVIO_EXPORT CaptureDeviceInput {
public:
    virtual ~CaptureDeviceInput() = default;
    [[nodiscard]] virtual const std::shared_ptr<CaptureDevice>& device() const = 0;
};

/// Joins an input to an output or to the preview. Any thread; a change takes effect with the next frame.
class SELVIO_EXPORT CaptureConnection {
public:
    virtual ~CaptureConnection() = default;
    [[nodiscard]] virtual bool isVideoOrientationSupported() const = 0;
    virtual void setVideoOrientation(VideoOrientation orientation) = 0;
    [[nodiscard]] virtual VideoOrientation videoOrientation() const = 0;
};

class SELVIO_EXPORT CaptureOutput {
public:
    virtual ~CaptureOutput() = default;
    /// Empty until the output belongs to a session with a matching input.
    [[nodiscard]] virtual std::vector<std::shared_ptr<CaptureConnection>> connections() const = 0;
};

/// A decoded machine-readable code.
struct MetadataObject {
    std::string type;
    std::optional<std::string> stringValue;
    Rect bounds;  ///< normalized to the frame, origin at the top left
};

/// Receives what the outputs deliver, each on the queue that it was set with.
class SELVIO_EXPORT CaptureOutputDelegate {
public:
    virtual ~CaptureOutputDelegate() = default;
    /// The buffer is valid for the call; keep the reference to keep it.
    virtual void captureOutputDidOutputSampleBuffer(const CaptureOutput& output,
                                                    const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                                    const std::shared_ptr<CaptureConnection>& connection) = 0;
    virtual void captureOutputDidDropSampleBuffer(const CaptureOutput& output,
                                                  const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                                  const std::shared_ptr<CaptureConnection>& connection) = 0;
    virtual void captureOutputDidOutputMetadataObjects(const CaptureOutput& output,
                                                       const std::vector<MetadataObject>& metadataObjects,
                                                       const std::shared_ptr<CaptureConnection>& connection) = 0;
};

/// What a writer input is to produce for video.
struct VideoSettings {
    std::string codec;  ///< kVideoCodecTypeH264 or kVideoCodecTypeHEVC
    int width = 0;      ///< pixels
    int height = 0;     ///< pixels
    std::map<std::string, std::int64_t> compressionProperties;
};

struct AudioSettings {
    int sampleRate = 48000;  ///< hertz
    int channels = 1;
    int bitRate = 96000;  ///< bits a second
};

class SELVIO_EXPORT VideoDataOutput : public CaptureOutput {
public:
    /// The frames' pixel format; 0 means 32-bit BGRA. One that the platform does not deliver is logged and changes
    /// nothing.
    virtual void setPixelFormat(PixelFormat format) = 0;
    /// Whether one frame at most waits beside the one that the delegate is handling. Of two that would wait the older
    /// is dropped: the newer takes its place in the queue, and a drop notice with the time of the older follows.
    virtual void setAlwaysDiscardsLateVideoFrames(bool discards) = 0;
    /// Frames and drop notices go to `delegate`, held weakly, on `queue`; null for both ends the deliveries. One that
    /// has begun or been picked up is not waited for, because the caller may hold the session's monitor and the
    /// delegate may want it.
    virtual void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                         std::shared_ptr<Queue> queue) = 0;
    [[nodiscard]] virtual VideoSettings recommendedVideoSettings(const std::string& fileType) const = 0;
};

class SELVIO_EXPORT AudioDataOutput : public CaptureOutput {
public:
    /// As for video frames.
    virtual void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                         std::shared_ptr<Queue> queue) = 0;
    [[nodiscard]] virtual AudioSettings recommendedAudioSettings(const std::string& fileType) const = 0;
};

class SELVIO_EXPORT MetadataOutput : public CaptureOutput {
public:
    /// As for video frames.
    virtual void setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                            std::shared_ptr<Queue> queue) = 0;
    /// Only these types are looked for.
    virtual void setMetadataObjectTypes(std::vector<std::string> types) = 0;
};

/// Inputs, outputs and whether they run. Any thread.
class SELVIO_EXPORT CaptureSession {
public:
    virtual ~CaptureSession() = default;
    /// The lock that `stop` and `shutdown` of a camera serialise through.
    [[nodiscard]] virtual std::recursive_mutex& monitor() = 0;

    virtual void beginConfiguration() = 0;
    virtual void commitConfiguration() = 0;
    [[nodiscard]] virtual bool canSetSessionPreset(const std::string& preset) const = 0;
    virtual void setSessionPreset(const std::string& preset) = 0;
    [[nodiscard]] virtual bool canAddInput(const CaptureDeviceInput& input) const = 0;
    virtual void addInput(std::shared_ptr<CaptureDeviceInput> input) = 0;
    virtual void removeInput(const std::shared_ptr<CaptureDeviceInput>& input) = 0;
    [[nodiscard]] virtual bool canAddOutput(const CaptureOutput& output) const = 0;
    virtual void addOutput(std::shared_ptr<CaptureOutput> output) = 0;
    virtual void removeOutput(const std::shared_ptr<CaptureOutput>& output) = 0;
    [[nodiscard]] virtual std::vector<std::shared_ptr<CaptureOutput>> outputs() const = 0;
    /// Whether a camera is among the inputs. A session that does not say so itself has one when an output is connected.
    [[nodiscard]] virtual bool hasVideoInput() const {
        for (const auto& output : outputs()) {
            if (!output->connections().empty()) return true;
        }
        return false;
    }

    /// True from the beginning of `startRunning` on, and so before anything is delivered, until the session is stopped,
    /// has failed to start or has ended by itself.
    [[nodiscard]] virtual bool isRunning() const = 0;
    /// Returns when frames may flow, when starting has failed (then `isRunning` is false and the reason is in the log),
    /// or when a `stopRunning` has ended it. A session without a camera runs and delivers nothing; it opens the camera
    /// that a configuration gives it, as part of that configuration.
    virtual void startRunning() = 0;
    /// Returns when the source has stopped; deliveries already on their queue may still run. A session that is just
    /// being started on another thread is stopped too; its source may then end in the background, but nothing comes
    /// from it any more; the session's next `startRunning` waits for that end, as long as opening may take. May be
    /// called from within a delivery.
    virtual void stopRunning() = 0;
    /// The current time of the session's master clock, on which samples are stamped.
    [[nodiscard]] virtual std::chrono::nanoseconds masterClockTime() const = 0;
};

/// The cameras found by one search, in order of preference.
struct CaptureDeviceDiscoverySession {
    std::vector<std::shared_ptr<CaptureDevice>> devices;
};

/// Where devices, sessions and outputs come from.
class SELVIO_EXPORT CaptureSystem {
public:
    virtual ~CaptureSystem() = default;
    [[nodiscard]] virtual std::shared_ptr<CaptureDeviceDiscoverySession> discoverDevices(
        const std::vector<std::string>& deviceTypes, MediaType mediaType, CaptureDevicePosition position) = 0;
    /// Null if there is none.
    [[nodiscard]] virtual std::shared_ptr<CaptureDevice> defaultDevice(MediaType mediaType) = 0;
    [[nodiscard]] virtual Expected<std::shared_ptr<CaptureDeviceInput>> makeDeviceInput(
        const std::shared_ptr<CaptureDevice>& device) = 0;
    [[nodiscard]] virtual std::shared_ptr<CaptureSession> makeSession() = 0;
    [[nodiscard]] virtual std::shared_ptr<VideoDataOutput> makeVideoDataOutput() = 0;
    [[nodiscard]] virtual std::shared_ptr<AudioDataOutput> makeAudioDataOutput() = 0;
    [[nodiscard]] virtual std::shared_ptr<MetadataOutput> makeMetadataOutput() = 0;

    [[nodiscard]] virtual AuthorizationStatus authorizationStatus(MediaType mediaType) = 0;
    /// Asks the person; `completion` gets the answer once, on a thread of the platform's choice.
    virtual void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) = 0;
};

}  // namespace selvio
