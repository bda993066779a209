// The camera view: live capture, preview, torch and recording.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureCameraDelegate.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCameraParameters.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace selvio {
class CameraState;
class SampleReceiver;
class VideoRecorder;
}  // namespace selvio

/// A view that shows a live camera and hands every frame to its delegate.
///
///     init… ──setDelegate──▶ configuring ──didFinishConfiguringSession──▶ configured ──start──▶ running
///                                                                         configured ◀──stop──── running
///       any of them ──shutdown──▶ finished (the graph is gone; starting again has no session to run)
///
/// Queues. "Session queue" is `videoQueue`, "video output queue" is `videoOutputQueue`, both serial and the camera's
/// own; "main thread" is the one that drains the platform's main queue. Unless an operation says otherwise it may be
/// called on any thread.
///
/// Locks: the session's monitor is held by `stop` and `shutdown`, so that they follow one another, and by the last step
/// of a configuration. Every other lock is held for the copy of a value and never while a port, a delegate, the log or
/// a queue is called. A delegate may call every operation from any of its members; it must not wait for a thread that
/// shuts the camera down.
///
/// Failures are never returned: they go to the platform log as fixed messages, and success shows in the delegate calls.
/// Nothing throws. A port that the platform lacks makes what needs it do nothing, which is a line in the log when the
/// camera is made; without `makeView` nothing is shown and all else works.
///
/// Release the last reference on the main thread, because it destroys the view; where another thread holds the last
/// one, as a delegate may for the length of a call, the view alone is handed to the main queue. Blocks still queued
/// then find no camera and end quietly, but a `stopRecording` or `discardRecording` already requested is carried out. A
/// configuration that runs just then takes its graph down again and notifies no one.
class SELVIO_EXPORT SelvioFacialCaptureCamera final : public std::enable_shared_from_this<SelvioFacialCaptureCamera> {
public:
    // ---- What every host calls, in the order of its calls. ----

    /// `permissionFor` the camera and the microphone.
    static void checkCameraPermission(std::function<void(bool granted)> completion,
                                      const selvio::Platform& platform = selvio::defaultPlatform());
    static void checkMicrophonePermission(std::function<void(bool granted)> completion,
                                          const selvio::Platform& platform = selvio::defaultPlatform());
    /// Calls `permissionGranted` with whether the medium may be used: at once, on the caller's thread, if that is
    /// settled, else once the person has answered, on a thread of the platform's choice. An authorization status
    /// outside 0 to 3 never calls it. Without a capture system: false, at once.
    static void permissionFor(selvio::MediaType mediaType, std::function<void(bool granted)> permissionGranted,
                              const selvio::Platform& platform = selvio::defaultPlatform());

    /// On the main thread. `preset`: one of `kCaptureSessionPreset…`, or nothing; `format`: a four-character pixel
    /// format code; `frame`: of the view, in points. Frames and preview are in portrait.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureCamera> initWithPreset(
        std::optional<std::string> preset, std::int64_t format, selvio::CaptureDevicePosition position,
        selvio::Rect frame, selvio::Platform platform = selvio::defaultPlatform());
    /// Does not take the graph down: `shutdown` does.
    ~SelvioFacialCaptureCamera();
    SelvioFacialCaptureCamera(const SelvioFacialCaptureCamera&) = delete;
    SelvioFacialCaptureCamera& operator=(const SelvioFacialCaptureCamera&) = delete;

    /// The view that backs the camera; never null. Its own operations belong on the main thread.
    [[nodiscard]] const std::shared_ptr<selvio::View>& view() const;
    /// Recording settings, shared with the host; null means no recording. Default: a new object, not the one in the
    /// capture's parameters: hand that one over, lest the record tell of other settings than those that hold. All
    /// are read when a recording begins. `recordAudio` is also read before, by the configuration that `setDelegate`
    /// begins: there is sound if it is true both times. `recordVideo` is read again by `stop`, which finishes nothing
    /// if it is false by then: `stopRecording` does.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureCameraParameters> parameters() const;
    void setParameters(std::shared_ptr<SelvioFacialCaptureCameraParameters> value);
    /// Holds the delegate weakly. A delegate that is not null has the capture graph configured, on the session queue,
    /// each time it is set. On a camera that is already configured the second run is refused with "Could not add video
    /// device input to the session"; the graph stays, and `shutdown` takes all of it down.
    ///
    /// The configuration logs, and then continues unless said otherwise: "Could not discover a capture device" (ends),
    /// "Could not create video device input: " with the error (ends), "Could not add video device input to the session"
    /// (ends), "Could not add audio device input to the session", "Can't add videoDataOutput", "Can't add
    /// audioDataOutput", "Can't add metaDataOutput", "Failed to set continuous autofocus and point of interest" (ends;
    /// also when a microphone was asked for and could not be opened). After an ending no `didFinishConfiguringSession`
    /// comes.
    void setDelegate(const std::shared_ptr<SelvioFacialCaptureCameraDelegate>& value);

    /// True once the configuration is complete and the delegate has been, or is about to be, told.
    [[nodiscard]] bool isConfigured() const;

    /// Requests `startRecording` and then runs the session if it is not running, on the session queue. Returns at once.
    /// Before `setDelegate` the session starts without a camera, and frames come once the configuration is there; a
    /// recording needs what the configuration makes, so none begins then ("Can't add writerInputVideo").
    void start();
    /// Torch off; a running session, one whose camera is still being opened included, is stopped and, if `recordVideo`
    /// is true, the recording that is being written, or about to begin, is finished as by `stopRecording`. On the
    /// caller's thread; returns when the source has stopped. A camera that is still being opened may be closed in the
    /// background; nothing comes from it any more. Frames already on their queue may still reach the delegate. Only the
    /// torch without a session or with one that does not run: after a session that ended by itself, as with a camera
    /// that was unplugged, finish the recording with `stopRecording`.
    void stop();
    /// Takes the graph and the observers down, on the caller's thread. The session is neither stopped nor finished
    /// recording: call `stop` before. Afterwards `session` and the three outputs are null; inputs and devices keep
    /// their values, `isConfigured` is not reset. From its return on the delegate is not called again, except
    /// `didFinishRecordingVideo` of a recording that was being finished: a delegate call that runs on another thread is
    /// waited for, unless `shutdown` is called from within a delegate call of this camera.
    void shutdown();

    /// Whether the chosen camera has a torch; false before the configuration.
    [[nodiscard]] bool hasTorch() const;
    /// The camera's own record of the torch. Both names give the same value.
    [[nodiscard]] bool isTorchON() const;
    [[nodiscard]] bool isTorchOn() const;
    /// False without a torch or a main queue. Otherwise true at once; the torch is lit 100 ms later, on the main
    /// queue. A `turnTorchOff` in between does not call that off. A failure to lock the device is ignored.
    bool turnTorchOn();
    /// False without a torch. Otherwise the torch is off on return, unless another thread has turned it on meanwhile. A
    /// failure to lock the device is ignored.
    bool turnTorchOff();

    /// For a turned interface: gives the preview the orientation (1 to 4), frames keep `cameraOrientation`, and a torch
    /// that was on is turned on again. Any other orientation only does the last. On the main thread.
    void updatePreviewLayer(selvio::VideoOrientation orientation);

    // ---- Other constructions and the archive. On the main thread. ----

    /// The back camera, the session's own preset, pixel format code 0, orientation not set, the view's default frame.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureCamera> init(
        selvio::Platform platform = selvio::defaultPlatform());
    /// As `init`, with the frame from an archive made by `encodeWithCoder`. Text that holds no frame leaves the view's
    /// default frame.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureCamera> initWithCoder(
        std::string_view archive, selvio::Platform platform = selvio::defaultPlatform());
    /// As `initWithPreset` above, with `orientation` for frames and preview.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureCamera> initWithPreset(
        std::optional<std::string> preset, std::int64_t format, selvio::CaptureDevicePosition position,
        selvio::VideoOrientation orientation, selvio::Rect frame,
        selvio::Platform platform = selvio::defaultPlatform());
    /// No preset: the camera's formats are searched for `resolution` (pixels, in the device's own terms) in `format`.
    /// Orientation not set.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureCamera> initWithDesiredResolution(
        selvio::Size resolution, std::int64_t format, selvio::CaptureDevicePosition position, selvio::Rect frame,
        selvio::Platform platform = selvio::defaultPlatform());

    /// The view's archive: one JSON object, {"Frame": [x, y, width, height]}. On the main thread.
    [[nodiscard]] std::string encodeWithCoder() const;

    // ---- Settings that the configuration reads. Changing one later does not reconfigure a configured session. ----

    /// Frames in `pixelBufferFormat` (true, the default) or in 420v (false).
    [[nodiscard]] bool analyzeRGBVideo() const;
    void setAnalyzeRGBVideo(bool value);
    /// Look for PDF417 codes. Default false.
    [[nodiscard]] bool detectPDF417() const;
    void setDetectPDF417(bool value);
    /// Stored only; no depth data is ever delivered. Default false.
    [[nodiscard]] bool deliverDepthData() const;
    void setDeliverDepthData(bool value);
    /// Default: back.
    [[nodiscard]] selvio::CaptureDevicePosition devicePosition() const;
    void setDevicePosition(selvio::CaptureDevicePosition value);
    /// Four-character code wanted for frames and in the format search; 0 (the default) gives BGRA frames and finds no
    /// format.
    [[nodiscard]] std::int64_t pixelBufferFormat() const;
    void setPixelBufferFormat(std::int64_t value);
    /// The session preset wanted. A refused one falls back to 1920x1080, 1280x720 and High, in this order. Default:
    /// none.
    [[nodiscard]] std::optional<std::string> sessionPreset() const;
    void setSessionPreset(std::optional<std::string> value);
    /// Resolution in pixels wanted when there is no preset; (0, 0), the default, leaves the device as it is.
    [[nodiscard]] selvio::Size desiredResolution() const;
    void setDesiredResolution(selvio::Size value);
    /// Which way up frames are. Not set (the default) gives landscape-right frames and a portrait preview.
    [[nodiscard]] selvio::VideoOrientation cameraOrientation() const;
    void setCameraOrientation(selvio::VideoOrientation value);
    /// Sets `pixelBufferFormat`, `devicePosition` (back if not given) and `sessionPreset`, in this order.
    void setPreset(std::optional<std::string> preset, std::int64_t format);
    void setPreset(std::optional<std::string> preset, std::int64_t format, selvio::CaptureDevicePosition position);

    // ---- Recording. The work runs on the video output queue. ----

    /// Removes leftover recordings and, if `recordVideo` of the parameters is true, begins a new MP4 file in the
    /// Documents directory. Frames are 720x1280 for a portrait interface, else 1280x720: the interface orientation is
    /// read before the video track is made, so the file always has the size of the moment when recording began (without
    /// a screen port the size that the output recommends). Logs "Can't add writerInputVideo" (nothing is recorded; also
    /// when the file cannot be made) and "Can't add writerInputAudio" (video only).
    void startRecording();
    /// Ends taking samples and finishes the file. A completed file is read, removed and handed to
    /// `didFinishRecordingVideo`. Otherwise logs
    /// "*** AVAssetWriterStatusFailed", "*** AVAssetWriterStatusCancelled" or "*** AVAssetWriterStatus other"; the file
    /// then stays until the next clean-up, as does one that cannot be read back ("Couldn't read item at path: …").
    /// Without a writer, or with one that has been asked already, only `shouldRecord` becomes false.
    void stopRecording();
    /// Ends taking samples, drops the writer and removes the file. The delegate is not notified.
    void discardRecording();
    /// Removes the file at `videoRecordingUrl`, if there is one; a failure is ignored. On the caller's thread.
    void deleteCurrentRecording();
    /// A path for a new recording: "selvio_yyyy-MM-dd_HH-mm-ss-SSS.mp4", local time, in the Documents directory. Absent
    /// without a clock or that directory.
    [[nodiscard]] std::optional<std::filesystem::path> url() const;
    /// Removes everything named "selvio_….mp4" in the Documents directory, a recording being written included. On the
    /// caller's thread. Logs "Couldn't get contents of Documents directory:" or, for each file, "Couldn't delete item
    /// at path:", with the reason on a second line.
    void cleanupBrokenVideos();

    /// Gate for the samples of a recording. True until the recording is stopped or discarded, true again when the next
    /// one begins.
    [[nodiscard]] bool shouldRecord() const;
    void setShouldRecord(bool value);

    // ---- What the camera alone decides. The host reads these (and `isTorchON` above) and cannot set them. ----

    /// Null once it is destroyed.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureCameraDelegate> delegate() const;
    /// Size in pixels of the first video frame delivered; (0, 0) before it. Never changes afterwards.
    [[nodiscard]] selvio::Size resolution() const;
    [[nodiscard]] const std::shared_ptr<selvio::Queue>& videoQueue() const;
    [[nodiscard]] const std::shared_ptr<selvio::Queue>& videoOutputQueue() const;
    /// The view's own layer.
    [[nodiscard]] std::shared_ptr<selvio::PreviewLayer> videoPreviewLayer() const;

    /// The session of the preview layer. Null after `shutdown`.
    [[nodiscard]] std::shared_ptr<selvio::CaptureSession> session() const;
    void setSession(std::shared_ptr<selvio::CaptureSession> value);

    // Parts of the graph and of the recording, null until they are made. The camera sets them itself; the setters are
    // there for a host that brings its own part, and change nothing but the stored value.
    [[nodiscard]] std::shared_ptr<selvio::CaptureDeviceDiscoverySession> discoverySession() const;
    void setDiscoverySession(std::shared_ptr<selvio::CaptureDeviceDiscoverySession> value);
    [[nodiscard]] std::shared_ptr<selvio::CaptureDevice> videoDevice() const;
    void setVideoDevice(std::shared_ptr<selvio::CaptureDevice> value);
    [[nodiscard]] std::shared_ptr<selvio::CaptureDeviceInput> videoInput() const;
    void setVideoInput(std::shared_ptr<selvio::CaptureDeviceInput> value);
    [[nodiscard]] std::shared_ptr<selvio::CaptureDevice> audioDevice() const;
    void setAudioDevice(std::shared_ptr<selvio::CaptureDevice> value);
    [[nodiscard]] std::shared_ptr<selvio::CaptureDeviceInput> audioInput() const;
    void setAudioInput(std::shared_ptr<selvio::CaptureDeviceInput> value);
    [[nodiscard]] std::shared_ptr<selvio::VideoDataOutput> videoDataOutput() const;
    void setVideoDataOutput(std::shared_ptr<selvio::VideoDataOutput> value);
    [[nodiscard]] std::shared_ptr<selvio::AudioDataOutput> audioDataOutput() const;
    void setAudioDataOutput(std::shared_ptr<selvio::AudioDataOutput> value);
    [[nodiscard]] std::shared_ptr<selvio::MetadataOutput> metaDataOutput() const;
    void setMetaDataOutput(std::shared_ptr<selvio::MetadataOutput> value);
    [[nodiscard]] std::shared_ptr<selvio::AssetWriter> assetWriter() const;
    void setAssetWriter(std::shared_ptr<selvio::AssetWriter> value);
    [[nodiscard]] std::shared_ptr<selvio::AssetWriterInput> writerVideoInput() const;
    void setWriterVideoInput(std::shared_ptr<selvio::AssetWriterInput> value);
    [[nodiscard]] std::shared_ptr<selvio::AssetWriterInput> writerAudioInput() const;
    void setWriterAudioInput(std::shared_ptr<selvio::AssetWriterInput> value);
    /// The file of the current or the last recording.
    [[nodiscard]] std::optional<std::filesystem::path> videoRecordingUrl() const;
    void setVideoRecordingUrl(std::optional<std::filesystem::path> value);

private:
    explicit SelvioFacialCaptureCamera(selvio::Platform platform);
    static std::shared_ptr<SelvioFacialCaptureCamera> make(selvio::Platform platform);
    void commonInit();
    struct SELVIO_HIDDEN SessionWork;
    /// Submits the work to the session queue; a camera destroyed by then does none.
    void onSessionQueue(void (*work)(const SessionWork&));
    void setTorch(selvio::CaptureDevice& device, selvio::TorchMode mode);

    void observe(selvio::ApplicationNotification notification, void (SelvioFacialCaptureCamera::*handler)());
    void handleAppEnteredBackground();
    void handleAppDidBecomeActive();
    void handleApplicationWillTerminate();

    const selvio::Platform platform_;
    const std::shared_ptr<selvio::View> view_;
    const std::shared_ptr<selvio::CameraState> state_;  // guards itself
    /// The last wish for the torch: its number, then in the lowest bit whether it is to be on.
    std::atomic<std::uint64_t> torchWish_{0};
    const std::thread::id mainThread_ = std::this_thread::get_id();  // where it was made
    // Made by commonInit, before anyone else knows the camera; not changed afterwards.
    std::shared_ptr<selvio::Queue> videoQueue_;
    std::shared_ptr<selvio::Queue> videoOutputQueue_;
    std::shared_ptr<selvio::VideoRecorder> recorder_;
    std::shared_ptr<selvio::SampleReceiver> receiver_;  // the outputs hold it weakly
};
