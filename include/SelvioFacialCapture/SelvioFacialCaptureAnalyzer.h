// The analyzer: judges camera frames one at a time, guides the user and selects the picture.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzerDelegate.h>
#include <SelvioFacialCapture/SelvioFacialCaptureObixData.h>
#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>
#include <SelvioFacialCapture/SelvioFacialCaptureUxpEventManager.h>
#include <SelvioFacialCapture/base/Export.h>
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
///     Constructed ──selection──▶ Selecting
///     Paused ──manual selection──▶ Selecting
///     any state ──stop, cancel──▶ Spent
///
/// - Constructed: frames are analysed as soon as they arrive; no motion updates.
/// - Running: frames are analysed; the motion feed drives the hold-still status.
/// - Paused: frames are kept in the history but not analysed; motion stopped.
/// - Selecting: a frame was chosen; frames are kept, up to twice as many. Left only by `resume`.
/// - Spent: parameters, results, history and motion source have been released. Nothing is taken, told or logged any
/// more; make a new analyzer for a new capture.
///
/// The control operations may be called on any thread, at any time, while frames arrive; a change takes effect for the
/// next frame or detection result. Delegate calls run on the main queue unless their documentation says otherwise.
/// Nothing here reports a failure to the caller: failures are lines in the platform log. The analyzer keeps no timer:
/// the host ends a capture that takes too long.
///
/// A frame's outcome belongs to that frame: the delegate is given that frame's statuses and picture, however late the
/// main queue is, in a results object that is never written again. A selection, `resume`, `stop` and `cancel` end what
/// was begun before them: no delegate call for an earlier frame follows. Of the reports that wait for a late main queue
/// only the newest of each kind (no face or several, a face, the countdown) is delivered, and so of the countdown's
/// announcements.
class SELVIO_EXPORT SelvioFacialCaptureAnalyzer {
public:
    /// A new analyzer for these parameters, which stay shared with the host. Null (with a line in the log) without
    /// parameters or on a platform without queues. Each other port that the platform lacks is a line in the log, with
    /// what follows from it (see `Platform`).
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureAnalyzer> initWithParameters(
        std::shared_ptr<SelvioFacialCaptureParameters> parameters,
        const selvio::Platform& platform = selvio::defaultPlatform());

    SelvioFacialCaptureAnalyzer(const SelvioFacialCaptureAnalyzer&) = delete;
    SelvioFacialCaptureAnalyzer& operator=(const SelvioFacialCaptureAnalyzer&) = delete;
    /// Stops the motion feed; delegate calls not yet run are dropped. Call `stop` before: without it the capture's
    /// events stay in the process's event log, and the next capture's record has them too. That is a line in the log.
    ~SelvioFacialCaptureAnalyzer();

    // Control

    /// Holds the delegate weakly. On a platform whose service level is below 12, a non-null delegate makes the analyzer
    /// manual-only: mode 1, and the delegate's `manualOnly` is called before this returns. Does nothing once spent.
    void setDelegate(std::weak_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate);
    /// Sets the parameters' mode.
    void updateMode(std::int64_t mode);
    /// Pauses without a reason.
    void pause();
    /// Pauses analysis and the motion feed. Reasons 1 to 4 are logged as "IS", "HS", "MF" and "RS"; any other is not
    /// logged.
    void pauseFor(std::int64_t reason);
    /// Starts or restarts analysis and the motion feed, logs the start event and adds the parameters to the data record
    /// (the first ones stay). After a success it begins the next capture, for a retake: analyzer, delegate and record
    /// stay the same, the event log continues, and `detectionSuccess` comes again. History and smile state stay too: a
    /// smile may select a frame from before. A countdown that was announced is not announced again but shows in the
    /// next status 10, unless a pause or a lost face came between. Does nothing once spent.
    void resume();
    /// Ends the capture without telling the delegate, and discards the event log. No delegate call begins any more once
    /// this has returned: a call under way on another thread, or a `cancel`, is waited for, unless this is called from
    /// inside a delegate call of this analyzer. So do not make a delegate call wait for a thread that stops.
    ///
    /// The event log is one for the process. Stop an analyzer before the next one's first `resume`: two captures at a
    /// time mix their events, and the `stop` of the one takes the other's away. Both are lines in the log.
    void stop();
    /// Ends the capture as cancelled: closes the data record, calls `detectionCancelled` on this thread with results of
    /// their own, then stops, and waits like `stop`. From its beginning no other delegate call of this capture begins.
    void cancel();
    /// Asks for a capture: in manual mode the next frame is selected, in automatic mode the next one with exactly one
    /// face. Cleared by `resume`.
    void selectFrame();

    // Frames

    /// Takes a camera frame: upright, in portrait, not mirrored, in 32BGRA, 32ARGB or 420v, at any stride, and all of
    /// one size. Landscape frames are a line in the log; no face in them is well placed. Any thread, a camera's
    /// own among them: it returns after one copy.
    /// Ignored if it is null or while another frame is held (frames are dropped, never queued); otherwise its pixels
    /// are copied once, and the rest runs on the analysis queue. The caller's buffer is not kept.
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

    // State. Every getter may be called on any thread and returns a value of the moment. Hosts change it by the
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
    /// The newest analysed frame's results, an object of its own for every frame; from a selection to `resume` those of
    /// the selected one. Null once spent.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureResults> results() const;
    /// The recent frames, newest last; empty once spent. The 14 newest live frames, 28 while a selection is in
    /// progress, or the 5 newest still images: what exceeds that is dropped when the next one comes.
    [[nodiscard]] std::vector<selvio::Image> imagesArray() const;
    /// The capture's data record, which accumulates over the analyzer's life.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureObixData> obixData() const;
    /// Replaces the record; null is ignored.
    void setObixData(std::shared_ptr<SelvioFacialCaptureObixData> obixData);
    /// Null if there is none or the host has released it.
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
    struct SELVIO_HIDDEN State;
    explicit SelvioFacialCaptureAnalyzer(std::shared_ptr<State> state);

    const std::shared_ptr<State> state_;
};
