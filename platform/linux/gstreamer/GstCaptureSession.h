// Joins a camera and a microphone to outputs, and runs them.
#pragma once

#include "platform/capture/CaptureSessionBase.h"
#include "platform/linux/gstreamer/GstDevices.h"
#include "platform/linux/gstreamer/GstOutputs.h"

#include <SelvioFacialCapture/base/SerialQueue.h>

#include <gst/app/gstappsink.h>

#include <condition_variable>
#include <set>

namespace selvio {

/// Configuration may be changed at any time and on any thread; a session that runs takes it up when the configuration
/// is committed. It runs without a camera, too, and opens the one that it is given.
///
///     stopped ──startRunning──▶ opening ──first frame, or no camera──▶ running ──configuration──▶ opening
///        ▲                         │ error, time-out, stopRunning         │ stopRunning, error, silence, end of a file
///        └─────────────────────────┴──────────────────────────────────────┘
///
/// `isRunning` is true while opening, so that who is called with the first frame can stop the session. GStreamer's
/// threads call `frameArrived`, `soundArrived` and the callback of `takeMessages`; these never take `lifecycle_`, since
/// stopping waits for those threads. Neither it nor another lock is held while something is logged.
class GstCaptureSession final : public CaptureSessionBase, public std::enable_shared_from_this<GstCaptureSession> {
public:
    GstCaptureSession(CaptureOptions options, std::shared_ptr<const void> system);
    ~GstCaptureSession() override;

    void beginConfiguration() override;
    void commitConfiguration() override;
    [[nodiscard]] bool canSetSessionPreset(const std::string& preset) const override;
    void setSessionPreset(const std::string& preset) override;
    [[nodiscard]] bool isRunning() const override { return state_ != State::Stopped; }
    void startRunning() override;
    void stopRunning() override;
    [[nodiscard]] std::chrono::nanoseconds masterClockTime() const override {
        return std::chrono::steady_clock::now().time_since_epoch();
    }

private:
    enum class State { Stopped, Opening, Running };
    /// What a running session was built from; when this changes it is built anew.
    struct Plan {
        std::shared_ptr<GstCaptureDevice> camera;
        std::shared_ptr<GstCaptureDevice> microphone;
        rules::CameraMode mode;
        PixelFormat pixelFormat = kPixelFormat32BGRA;
        friend bool operator==(const Plan&, const Plan&) = default;
    };
    /// Whose memory frames come in.
    enum class FrameMemory {
        Converter,  ///< a converter's, which has as much of it as is wanted
        Camera,     ///< the camera's own, of which there is little: lent out up to a limit, copied beyond it
        Temporary,  ///< PipeWire's, freed when the camera disappears, whoever still reads it: copied at once
    };
    /// What one start has opened. A pipeline that did not start is closed later, beside the next run: what it still
    /// says counts no more.
    struct Run {
        GstCaptureSession& session;
        const std::uint64_t number;
        FrameMemory memory = FrameMemory::Converter;              // set before frames come
        std::optional<std::chrono::nanoseconds> frameDuration{};  // of the camera's mode, set before frames come
        rules::AudioClock audioClock{};                           // used on the microphone's thread
    };

    void partsChanged() override;
    [[nodiscard]] Plan plan() const;

    /// Nobody waits for a first frame as long as the result is held.
    [[nodiscard]] std::shared_ptr<void> interruptOpening();
    [[nodiscard]] std::vector<std::string> start();
    void stop();
    void closePipelines();
    void abandon();
    /// Waits for what was abandoned of a camera, as long as opening may take; false if the camera is not wanted any
    /// more.
    [[nodiscard]] bool waitForClosing(const std::string& camera);
    std::optional<Error> openCamera(const Plan& plan, const std::shared_ptr<Run>& run);
    std::optional<Error> openMicrophone(const Plan& plan, const std::shared_ptr<Run>& run);
    void fail(std::uint64_t run, const std::string& reason);
    void watch(std::uint64_t run, rules::Wait silence);

    void frameArrived(const Run& run, GstSample* sample, GstElement* sink);
    void soundArrived(Run& run, GstSample* sample, GstElement* sink);
    [[nodiscard]] static std::optional<std::chrono::nanoseconds> timeOf(GstSample* sample, GstElement* sink);
    std::shared_ptr<PixelBuffer> borrow(FrameMemory memory, GstBuffer* buffer, const GstVideoInfo& info,
                                        const FrameCrop& crop);

    const CaptureOptions options_;
    MemberMutex mutex_;
    int configuring_ = 0;  // guarded by mutex_; configurations that have begun

    std::recursive_mutex lifecycle_;     // held while the pipelines are built or taken down
    std::optional<Plan> runningPlan_;    // guarded by lifecycle_
    GstPtr<GstElement> cameraPipeline_;  // guarded by lifecycle_
    GstPtr<GstElement> soundPipeline_;   // guarded by lifecycle_

    /// Frames in the camera's own memory that are in use elsewhere; these frames share the number.
    const std::shared_ptr<std::atomic<int>> lentFrames_ = std::make_shared<std::atomic<int>>(0);
    const std::shared_ptr<PixelBufferPool> copies_ = PixelBufferPool::create();

    std::atomic<State> state_{State::Stopped};  // changed under openingMutex_
    std::atomic<std::int64_t> lastFrame_{0};    // monotonic nanoseconds
    std::mutex openingMutex_;
    std::condition_variable opened_;
    int interruptions_ = 0;               // guarded by openingMutex_
    bool firstFrame_ = false;             // guarded by openingMutex_
    std::optional<std::string> failure_;  // guarded by openingMutex_; why this run ended by itself
    std::multiset<std::string> closing_;  // guarded by openingMutex_; cameras of which abandoned pipelines are left
    /// Counts the starts and the ends; counted up under openingMutex_. Codes that are still looked for share it.
    const std::shared_ptr<std::atomic<std::uint64_t>> run_ = std::make_shared<std::atomic<std::uint64_t>>(0);
    SerialQueue control_{"capture control"};
    SerialQueue closer_{"capture closing"};  // takes no lifecycle_: who holds it waits for this
};

}  // namespace selvio
