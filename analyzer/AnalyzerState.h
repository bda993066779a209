// What an analyzer remembers and does behind its public operations.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>
#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>
#include <thread>

#include "analyzer/Deliveries.h"
#include "analyzer/FrameHistory.h"
#include "analyzer/rules/GoodFrameGate.h"

namespace selvio {

/// Runs a block that must not throw into its queue: says what was given up, and why, and returns false.
template <typename Block>
bool withoutThrowing(const char* givenUp, const Block& block) {
    try {
        block();
        return true;
    } catch (const std::bad_alloc&) {
        log(std::string(givenUp) + ": not enough memory");
    } catch (const std::exception& error) {
        log(std::string(givenUp) + ": " + error.what());
    }
    return false;
}

}  // namespace selvio

struct SelvioFacialCaptureAnalyzer::State : std::enable_shared_from_this<State> {
    using Results = std::shared_ptr<SelvioFacialCaptureResults>;
    using Statuses = std::vector<SelvioFacialCaptureStatus>;
    using Delegate = SelvioFacialCaptureAnalyzerDelegate;

    /// Runs of a capture are numbered. A selection, `resume`, `stop` and `cancel` each end a run and begin the next
    /// one.
    using Run = std::uint64_t;

    /// An analysed frame. Carries all that its outcome needs, so that later steps do not read the newest frame's state.
    struct Frame {
        Run run = 0;           ///< a step for a frame of a run that has ended does nothing
        Results results = {};  ///< this frame's, null before a still image is judged; never written again once a
                               ///< delegate was given it
        std::optional<selvio::Image> image = {};
    };
    using Step = void (State::*)(const Frame&);

    /// A frame that has been taken in. Releasing `latch` admits the next one.
    struct HeldFrame {
        std::shared_ptr<selvio::SampleBuffer> buffer;
        std::shared_ptr<void> latch;

        void release() {
            buffer.reset();
            latch.reset();
        }
    };

    /// Stands for work that `stop` and `cancel` wait for, unless they are called by the thread that does it.
    class ActiveCall {
    public:
        /// Nothing if the run, or, when none is named, the capture has ended.
        static std::optional<ActiveCall> begin(State& state, std::optional<Run> run);
        /// The state's mutex is held.
        explicit ActiveCall(State& state) : state_(state) { state_.activeCalls.push_back(std::this_thread::get_id()); }
        ActiveCall(const ActiveCall&) = delete;
        ActiveCall& operator=(const ActiveCall&) = delete;
        ~ActiveCall();

    private:
        State& state_;
    };

    State(const selvio::Platform& ports, std::shared_ptr<SelvioFacialCaptureParameters> settings);

    // Control. The public operations of the same names.
    void setDelegate(std::weak_ptr<Delegate> host);
    void pauseFor(std::int64_t reason);
    void resume();
    void stop();
    void cancel();

    // The steps of a frame, in this order. From the second step on: analysis queue, or the thread of a still image.
    void analyzeSampleBuffer(const std::shared_ptr<selvio::SampleBuffer>& sampleBuffer);
    void analyzeHeldFrame(HeldFrame& held);
    void analyzeImageAtPath(const std::string& path);
    [[nodiscard]] Results replaceResultsByCopy(Run run);
    void detectFaces(selvio::SequenceRequestHandler& handler, selvio::FaceLandmarksRequest request, const Frame& frame,
                     HeldFrame* held);
    void judgeDetection(const selvio::FaceLandmarksResult& found, Frame frame);
    void reportBadFrame(const Frame& frame, const Statuses& statuses, Step report);
    void gateGoodFrame(const Frame& frame);
    void testSmile(const Frame& frame);  // global queue
    /// The run that is current when the test ends; null if `smileDetectionInProgress` must stay as it is.
    std::optional<Run> judgeSmile(const Frame& frame, bool smiling);

    // Steps on the main queue.
    void deliver(selvio::DeliveryKind kind, Step step, const Frame& frame);
    void deliverReport(const Frame& frame);
    void deliverReportOrSelect(const Frame& frame);
    void deliverCountdown(const Frame& frame);
    void deliverCountdownStatus(const Frame& frame);
    void deliverManually(const Frame& frame);
    void selectAutomatically(const Frame& frame);
    void deliverSuccess(const Frame& frame);
    void select(const Frame& frame, SelvioFacialCaptureResultCode code, const std::optional<Statuses>& statuses);

    /// The end of every selection: closes the record and fills the results, unless its run has ended meanwhile.
    void closeCapture(const Frame& selected, SelvioFacialCaptureResultCode code);
    void logEvent(SelvioFacialCaptureUxpEvent event, std::optional<Run> run);
    void logStatuses(const Statuses& statuses, Run run);
    std::optional<nlohmann::json> loggedEvents(Run run);

    // Runs.
    /// The run of a frame that begins now. Once the capture has ended, one that is never current: the last run is
    /// `cancel`'s own.
    [[nodiscard]] Run runOfNewFrame() const;
    [[nodiscard]] bool isCurrent(Run run) { return mutex.get(currentRun) == run; }
    /// Ends the run and returns the next one. The mutex is held.
    Run beginRun();
    /// Begins the selection of a frame, and with it a new run, unless its run has ended or a selection is in progress
    /// already. From then on `results` are the frame's, if it has some.
    [[nodiscard]] std::optional<Run> beginSelection(const Frame& frame);
    /// Calls what the delegate implements, unless the run has ended. Who stops it may then be the last to hold the
    /// delegate.
    template <typename Member, typename... Arguments>
    void tell(Run run, Member member, const Arguments&... arguments) {
        const auto call = ActiveCall::begin(*this, run);
        const auto host = call ? mutex.get(delegate).lock() : nullptr;
        if (host && *host.*member) (*host.*member)(arguments...);
    }
    [[nodiscard]] bool implementsDetectionSuccess(Run run) {
        const auto call = ActiveCall::begin(*this, run);  // `stop` waits for the end of this reference
        const auto host = call ? mutex.get(delegate).lock() : nullptr;
        return host && host->detectionSuccess;
    }
    /// No run follows. Any number of times.
    void endRuns();
    void waitForOthers();
    /// Whether this thread makes such a call. The mutex is held.
    [[nodiscard]] bool isActiveCallHere() const;
    void tearDown();
    /// With the first event.
    void joinEventLog();
    /// False if no event has been logged, or it has been left already.
    bool leaveEventLog();

    /// Brings the motion feed to what was last asked for.
    void setMotionUpdates(bool running);

    [[nodiscard]] selvio::rules::GateFlags gateFlags() const;
    [[nodiscard]] bool canAnalyze() const;
    [[nodiscard]] std::uint32_t exifOrientationOfDevice() const;

    const selvio::Platform platform;
    const selvio::InterfaceOrientation statusbarOrientation;
    const std::shared_ptr<selvio::SequenceRequestHandler> sequenceRequestHandler;  // analysis queue
    const std::shared_ptr<selvio::FaceDetector> faceDetector;
    const std::shared_ptr<selvio::PixelBufferPool> framePool;
    selvio::FrameHistory history;

    std::atomic<bool> selectionInProgress{false};
    std::atomic<bool> smileDetectionInProgress{false};
    std::atomic<bool> shouldSkipFrames{false};
    std::atomic<bool> shouldSelectCurrentFrame{false};
    std::atomic<bool> manualOnly{false};
    std::atomic<bool> shouldHoldStill{false};
    std::atomic<bool> shouldStartCountdown{true};
    std::atomic<std::int64_t> smileStatus{0};
    std::atomic<std::uint32_t> exifOrientation{0};
    std::atomic<bool> ended{false};  // set, once, while mutex is held
    std::atomic<bool> usesEventLog{false};
    std::atomic<bool> pointCountsLogged{false};
    const std::shared_ptr<std::atomic<bool>> inProgress = std::make_shared<std::atomic<bool>>(false);

    // Nothing foreign is called while this is held: no delegate, port, queue, log or clock.
    mutable selvio::MemberMutex mutex;
    Run currentRun = 0;                        // guarded by mutex
    std::vector<std::thread::id> activeCalls;  // guarded by mutex; the thread of each `ActiveCall`
    std::condition_variable activeCallEnded;
    bool cancelTearsDown = false;    // guarded by mutex; a `cancel` that is under way still needs the log
    bool announcementWaits = false;  // guarded by mutex; a countdown whose announcement the host has not been given yet
    selvio::Deliveries<Frame, Step> deliveries;                 // guarded by mutex; each has a block on the main queue
    std::shared_ptr<SelvioFacialCaptureObixData> obixData;      // guarded by mutex
    std::weak_ptr<Delegate> delegate;                           // guarded by mutex
    std::shared_ptr<SelvioFacialCaptureParameters> parameters;  // guarded by mutex; null once spent
    Results results;                                            // guarded by mutex; null once spent
    selvio::rules::PreviewGeometry geometry;                    // guarded by mutex
    selvio::rules::FaceChecksResult face;                       // guarded by mutex; the last checked one
    std::shared_ptr<selvio::MotionManager> motionManager;       // guarded by mutex; null once spent
    std::uint64_t motionAsked = 0;                              // guarded by mutex; counts what was asked of the feed
    bool motionRunning = false;                                 // guarded by mutex; what was asked last
    bool motionChanging = false;                                // guarded by mutex; a thread is carrying it out

    // Last, so that it is joined first: its blocks use the members above.
    const std::shared_ptr<selvio::Queue> analysisQueue;
};
