// The analyzer: judges camera frames one at a time, guides the user and selects the picture.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzerDelegate.h>
#include <SelvioFacialCapture/SelvioFacialCaptureObixData.h>
#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>
#include <SelvioFacialCapture/SelvioFacialCaptureUxpEventManager.h>
#include <SelvioFacialCapture/imaging/SampleBuffer.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// One facial capture, driven by the host.
///
/// States, and what moves between them:
///
///     Constructed ──resume──▶ Running ──selection──▶ Selecting ──resume──▶ Running
///          │                   │   ▲
///          └────pause────▶ Paused──┘ resume
///     Constructed, Paused ──manual selection──▶ Selecting
///     any state ──stop, cancel──▶ Spent
///
/// - Constructed: frames are analysed as soon as they arrive; no motion updates.
/// - Running: frames are analysed; the motion feed drives the hold-still status.
/// - Paused: frames are kept in the history but not analysed; motion stopped.
/// - Selecting: a frame was chosen; frames are kept, the history is no longer trimmed. Left only by `resume`.
/// - Spent: parameters, results, history and motion source are gone. Every operation does nothing; make a new analyzer
/// for a new capture.
///
/// The control operations may be called on any thread, at any time, while frames arrive; a change takes effect for the
/// next frame or detection result. Delegate calls run on the main queue unless their documentation says otherwise.
/// Nothing here reports a failure to the caller: failures are lines in the platform log. The analyzer keeps no timer:
/// the host ends a capture that takes too long.
class SelvioFacialCaptureAnalyzer : public std::enable_shared_from_this<SelvioFacialCaptureAnalyzer> {
public:
    /// A new analyzer for these parameters, which stay shared with the host. Null (with a line in the log) without
    /// parameters or on a platform without queues.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureAnalyzer> initWithParameters(
        std::shared_ptr<SelvioFacialCaptureParameters> parameters,
        const selvio::Platform& platform = selvio::defaultPlatform());

    SelvioFacialCaptureAnalyzer(const SelvioFacialCaptureAnalyzer&) = delete;
    SelvioFacialCaptureAnalyzer& operator=(const SelvioFacialCaptureAnalyzer&) = delete;
    /// Stops the motion feed; delegate calls not yet run are dropped.
    ~SelvioFacialCaptureAnalyzer();

    // Control

    /// Holds the delegate weakly. On a platform whose service level is below 12, a non-null delegate makes the analyzer
    /// manual-only: mode 1, and the delegate's `manualOnly` is called before this returns.
    void setDelegate(std::weak_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate);
    /// Sets the parameters' mode.
    void updateMode(std::int64_t mode);
    /// Pauses without a reason.
    void pause();
    /// Pauses analysis and the motion feed. Reasons 1 to 4 are logged as "IS", "HS", "MF" and "RS"; any other is not
    /// logged.
    void pauseFor(std::int64_t reason);
    /// Starts or restarts analysis and the motion feed, logs the start event and adds the parameters to the data record
    /// (the first ones stay).
    void resume();
    /// Ends the capture without telling the delegate, and discards the process-wide event log. Afterwards no delegate
    /// call is started; one that the main queue was making while another thread called this may still be under way.
    void stop();
    /// Ends the capture as cancelled: closes the data record, calls `detectionCancelled` on this thread, then stops.
    /// Waits for a selection that is closing the record on another thread; a selection that has not been delivered by
    /// then never is.
    void cancel();
    /// Asks for a capture: in manual mode the next frame is selected, in automatic mode the next one with exactly one
    /// face. Cleared by `resume`.
    void selectFrame();

    // Frames

    /// Takes a camera frame. Ignored if it is null or while another frame is held (frames are dropped, never queued);
    /// otherwise its pixels are copied once, and the rest runs on the analysis queue. The caller's buffer is not kept.
    void analyzeSampleBuffer(const std::shared_ptr<selvio::SampleBuffer>& sampleBuffer);
    /// Analyses the picture in a file on the calling thread, even while paused, though its result is then dropped like
    /// any other; the picture takes the place of the screen. A file that cannot be read is a line in the log and
    /// nothing else. Does nothing on platforms whose service level is below 12.
    void analyzeImageAtPath(const std::string& path);

    /// The orientation of the front camera's mirrored image, as EXIF orientation: 7, 4, 2 for devices held upside down,
    /// landscape left and landscape right, else 5.
    [[nodiscard]] static std::uint32_t exifOrientationForDeviceOrientation(selvio::DeviceOrientation orientation);
    /// The same for the device as it is held now.
    [[nodiscard]] std::uint32_t exifOrientationForCurrentDeviceOrientation() const;
    /// The EXIF orientation of an image orientation; 1 for a value outside the enumeration.
    [[nodiscard]] static std::uint32_t cgOrientationFrom(selvio::ImageOrientation orientation);

    // State. Every getter may be called on any thread and answers a value of the moment. Hosts change it by the
    // operations above only.

    [[nodiscard]] bool selectionInProgress() const;
    [[nodiscard]] bool smileDetectionInProgress() const;
    [[nodiscard]] bool shouldSkipFrames() const;
    [[nodiscard]] bool shouldSelectCurrentFrame() const;
    [[nodiscard]] bool manualOnly() const;
    [[nodiscard]] bool isDepthDetected() const;
    [[nodiscard]] bool shouldHoldStill() const;
    [[nodiscard]] bool shouldStartCountdown() const;
    /// A frame is held and under analysis.
    [[nodiscard]] bool inProgress() const;
    /// 0 not yet tested, 1 the first tested frame of this run of good frames showed a smile, 2 it showed none.
    [[nodiscard]] std::int64_t smileStatus() const;
    /// EXIF orientation of the last analysed live frame; 0 before.
    [[nodiscard]] std::uint32_t exifOrientation() const;

    /// Null once spent.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureParameters> parameters() const;
    /// The current frame's results, replaced for every analysed live frame; null once spent.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureResults> results() const;
    /// The recent frames, newest last; empty once spent. The 14 newest live frames, or the 5 newest still images: what
    /// exceeds that goes when the next one comes. While a selection is in progress nothing goes, so a host stops or
    /// resumes soon after it.
    [[nodiscard]] std::vector<selvio::Image> imagesArray() const;
    /// The capture's data record, which accumulates over the analyzer's life.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureObixData> obixData() const;
    /// Replaces the record; null is ignored.
    void setObixData(std::shared_ptr<SelvioFacialCaptureObixData> obixData);
    /// Null if there is none or the host has let it go.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate() const;

    /// Pixel size of the frames: that of the first analysed one.
    [[nodiscard]] selvio::Size resolution() const;
    /// Stores the frames' size and recomputes how much of them the screen crops away; the zero size is only stored.
    void setResolution(selvio::Size resolution);
    [[nodiscard]] double biggerScreenSide() const;    ///< points
    [[nodiscard]] double smallerScreenSide() const;   ///< points
    [[nodiscard]] double biggerPreviewSide() const;   ///< pixels
    [[nodiscard]] double smallerPreviewSide() const;  ///< pixels
    [[nodiscard]] double wAdjuster() const;           ///< share of the frame's short side that is on the screen
    [[nodiscard]] double hAdjuster() const;           ///< share of the frame's long side that is on the screen
    [[nodiscard]] double xAdjuster() const;           ///< points cropped away at each end of the short side
    [[nodiscard]] double yAdjuster() const;           ///< points cropped away at each end of the long side
    /// How the interface was turned when the analyzer was made.
    [[nodiscard]] selvio::InterfaceOrientation statusbarOrientation() const;
    /// Width of the last checked face as a share of the screen's width (of 1.218 times it on a screen longer than 1.78
    /// : 1).
    [[nodiscard]] double faceHorizontalFill() const;
    [[nodiscard]] selvio::Point noseMiddle() const;
    [[nodiscard]] selvio::Point lipLeft() const;
    [[nodiscard]] selvio::Point lipRight() const;

private:
    struct State;
    using Results = std::shared_ptr<SelvioFacialCaptureResults>;
    using Step = void (SelvioFacialCaptureAnalyzer::*)();
    using FrameId = std::uint64_t;
    static constexpr FrameId kNoFrame = 0;
    explicit SelvioFacialCaptureAnalyzer(std::unique_ptr<State> state);

    // A frame's way, in this order. Analysis queue, or the thread of a still image.
    void analyzeHeldFrame(FrameId id);
    void performLandmarksRequest(const std::shared_ptr<const selvio::PixelBuffer>& pixelBuffer,
                                 std::uint32_t exifOrientation, FrameId id);
    void detectedFace(const selvio::FaceLandmarksRequest& request, const std::optional<selvio::Error>& error);
    void normalizeFaceLandmarkPointsFrom(const selvio::FaceObservation& observation,
                                         SelvioFacialCaptureResults& results) const;
    void analyzeFaceLandmarkPoints(SelvioFacialCaptureResults& results);
    void gateGoodFrame();
    void testSmile(const std::optional<selvio::Image>& image);  // global queue
    void releaseSampleBuffer(FrameId id);

    // Steps on the main queue.
    void deliverCurrentResults();
    void deliverResultsOrSelectManually();
    void deliverCountdown();
    void deliverCountdownStatus();
    void deliverManually();
    void selectAutomatically();
    void submitToMainQueue(Step step);
    void deliverResults(const Results& results);
    void deliverSuccess(const Results& selected);

    void reportStatuses(SelvioFacialCaptureResults& results, const std::vector<SelvioFacialCaptureStatus>& statuses);
    void addUxpFor(const std::vector<SelvioFacialCaptureStatus>& statuses);
    void addEvent(SelvioFacialCaptureUxpEvent event);
    [[nodiscard]] std::optional<nlohmann::json> events() const;
    void startMotionUpdates();
    bool closeCapture(const Results& selected, std::optional<selvio::Image> image, SelvioFacialCaptureResultCode code);
    void finalizeObix(SelvioFacialCaptureResults& results);

    const std::unique_ptr<State> state_;
};
