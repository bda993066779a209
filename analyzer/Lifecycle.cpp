// Construction, control and state of the analyzer.
#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>
#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "analyzer/AnalyzerState.h"
#include "analyzer/rules/DeviceOrientation.h"
#include "analyzer/rules/StatusEvents.h"
#include "platform/MissingPorts.h"

using namespace selvio;
using Analyzer = SelvioFacialCaptureAnalyzer;

namespace {

constexpr auto kMotionInterval = std::chrono::milliseconds(300);
constexpr int kSequenceHandlerLevel = 11;
constexpr int kAutomaticAnalysisLevel = 12;  // a platform of a lower level of services captures manually only

template <typename T>
std::shared_ptr<T> made(const std::function<std::shared_ptr<T>()>& make) {
    return make ? make() : nullptr;
}

void logMissing(const Platform& ports) {
    logMissingPorts({
        {ports.screen != nullptr, "screen", "every single face passes the checks"},
        {ports.makeSequenceRequestHandler != nullptr, "makeSequenceRequestHandler",
         "frames are kept but not judged, and only manual capture works"},
        {ports.makeFaceDetector != nullptr, "makeFaceDetector",
         "no good frame is reported in manual mode or with selectOnSmile"},
        {ports.imageCodec != nullptr, "imageCodec", "a success comes without an encoded picture"},
        {ports.device != nullptr, "device", "the record names none, and it counts as held upright"},
        {ports.makeMotionManager != nullptr, "makeMotionManager", "nobody is told to hold still"},
        {ports.imageLoader != nullptr, "imageLoader", "still images are not analysed"},
    });
}

/// Captures from their first event to their end. They share one event log.
std::atomic<int> capturesRunning{0};

std::string queueLabel(const char* name) {
    return std::string(kQueueLabelPrefix) + name;
}

}  // namespace

Analyzer::State::State(const Platform& ports, std::shared_ptr<SelvioFacialCaptureParameters> settings)
    : platform(ports),
      statusbarOrientation(ports.screen ? ports.screen->statusBarOrientation() : InterfaceOrientation::Unknown),
      sequenceRequestHandler(ports.serviceLevel >= kSequenceHandlerLevel ? made(ports.makeSequenceRequestHandler)
                                                                         : nullptr),
      faceDetector(made(ports.makeFaceDetector)),
      framePool(PixelBufferPool::create()),
      obixData(SelvioFacialCaptureObixData::init(ports)),
      parameters(std::move(settings)),
      results(std::make_shared<SelvioFacialCaptureResults>()),
      motionManager(made(ports.makeMotionManager)),
      analysisQueue(ports.makeSerialQueue(queueLabel(".frameAnalysisQueue"))) {
    if (ports.screen) geometry.setScreen(ports.screen->bounds());
    if (motionManager) motionManager->setDeviceMotionUpdateInterval(kMotionInterval);
}

bool Analyzer::State::canAnalyze() const {
    return platform.serviceLevel >= kAutomaticAnalysisLevel && sequenceRequestHandler;
}

rules::GateFlags Analyzer::State::gateFlags() const {
    return {.selectionInProgress = selectionInProgress,
            .shouldSkipFrames = shouldSkipFrames,
            .smileDetectionInProgress = smileDetectionInProgress};
}

void Analyzer::State::setDelegate(std::weak_ptr<Delegate> host) {
    const bool given = !host.expired();
    const bool applies = given && platform.serviceLevel < kAutomaticAnalysisLevel;
    Run run = 0;
    {
        std::unique_lock lock(mutex);
        if (ended) return;
        run = currentRun;
        delegate.swap(host);
        lock.unlock();  // before the end of what was replaced
    }
    if (!applies) return;
    manualOnly = true;
    if (const auto settings = mutex.get(parameters)) settings->setMode(SelvioFacialCaptureModeManual);
    tell(run, &Delegate::manualOnly);
}

void Analyzer::State::pauseFor(std::int64_t reason) {
    {
        const std::lock_guard lock(mutex);  // not in the middle of a decision
        shouldSkipFrames = true;
        shouldStartCountdown = true;
    }
    if (const auto event = rules::eventForPause(reason)) logEvent(*event, std::nullopt);
    setMotionUpdates(false);
}

void Analyzer::State::resume() {
    std::shared_ptr<SelvioFacialCaptureParameters> settings;
    std::shared_ptr<SelvioFacialCaptureObixData> record;
    {
        const std::lock_guard lock(mutex);
        if (ended) return;
        beginRun();
        shouldSkipFrames = false;
        smileDetectionInProgress = false;
        selectionInProgress = false;
        shouldSelectCurrentFrame = false;
        settings = parameters;
        record = obixData;
    }
    const bool automatic = settings->mode() == SelvioFacialCaptureModeAuto;
    logEvent(automatic ? SelvioFacialCaptureUxpEventStartAuto : SelvioFacialCaptureUxpEventStartManual, std::nullopt);
    setMotionUpdates(true);
    record->addParameters(settings->toDictionary());
}

// Only one thread at a time speaks to the motion manager. It does so without the mutex, and looks afterwards whether
// something else has been asked for meanwhile.
void Analyzer::State::setMotionUpdates(bool running) {
    std::optional<ActiveCall> changing;
    std::shared_ptr<MotionManager> manager;  // outlives the lock
    std::unique_lock lock(mutex);
    motionRunning = running && !ended;
    ++motionAsked;
    if (motionChanging || !motionManager) return;
    motionChanging = true;
    changing.emplace(*this);
    manager = motionManager;
    for (std::uint64_t carriedOut = 0; carriedOut != motionAsked;) {
        carriedOut = motionAsked;
        const bool start = motionRunning;
        lock.unlock();
        if (start) {
            manager->startDeviceMotionUpdates(
                platform.makeSerialQueue(queueLabel(".deviceMotionQueue")),
                [weak = weak_from_this()](const DeviceMotion& motion, const std::optional<Error>&) {
                    if (const auto self = weak.lock()) self->shouldHoldStill = rules::isMoving(motion.rotationRate);
                });
        } else {
            manager->stopDeviceMotionUpdates();
        }
        lock.lock();
    }
    motionChanging = false;
    if (ended && !motionRunning) motionManager = nullptr;
}

void Analyzer::State::endRuns() {
    const std::lock_guard lock(mutex);
    if (!ended.exchange(true)) ++currentRun;
}

void Analyzer::State::stop() {
    endRuns();
    waitForOthers();
    tearDown();
}

void Analyzer::State::cancel() {
    std::optional<ActiveCall> cancelling;
    Results cancelled;
    std::shared_ptr<SelvioFacialCaptureObixData> record;
    Run run = 0;
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!ended) {
            cancelled = results->withoutSelection();
            record = obixData;
            run = ++currentRun;
            ended = true;
            cancelTearsDown = true;
            const bool inside = isActiveCallHere();
            cancelling.emplace(*this);
            // A delegate call that another thread has begun ends before the cancellation is delivered.
            if (!inside) activeCallEnded.wait(lock, [this] { return activeCalls.size() == 1; });
        }
    }
    if (!cancelling) return stop();
    const SelvioFacialCaptureResultCode code = SelvioFacialCaptureResultCodeCancelled;
    withoutThrowing("The data record could not be written", [&] {
        const auto events = SelvioFacialCaptureUxpEventManager::sharedInstance();
        joinEventLog();
        events->addEvent(SelvioFacialCaptureUxpEventCancelled);
        record->addUXP(events->events());
        record->add({{"SelvioResultCode", *SelvioFacialCaptureResults::stringFrom(code)}});
        cancelled->setObixDataString(record->obixDataString());
    });
    cancelled->setResultCode(code);
    withoutThrowing("The cancellation could not be delivered",
                    [&] { tell(run, &Delegate::detectionCancelled, cancelled); });
    mutex.set(cancelTearsDown, false);
    cancelling.reset();
    stop();
}

// The first of several threads does it, and the others wait for that.
void Analyzer::State::tearDown() {
    Results spentResults;
    std::shared_ptr<SelvioFacialCaptureParameters> spentParameters;
    std::optional<ActiveCall> tearingDown;
    {
        const std::lock_guard lock(mutex);
        if (cancelTearsDown) return;
        spentResults.swap(results);
        spentParameters.swap(parameters);
        if (spentResults) tearingDown.emplace(*this);
    }
    if (!tearingDown) return waitForOthers();
    leaveEventLog();
    const bool others = capturesRunning > 0;
    SelvioFacialCaptureUxpEventManager::destroySharedInstance();
    history.close();
    setMotionUpdates(false);
    if (others) log("A capture was stopped while another one runs, which has lost its events until now");
}

void Analyzer::State::joinEventLog() {
    if (!usesEventLog.exchange(true) && capturesRunning++ > 0)
        log("A capture begins before another one was stopped: their events mix in the process's one event log");
}

bool Analyzer::State::leaveEventLog() {
    const bool used = usesEventLog.exchange(false);
    if (used) --capturesRunning;
    return used;
}

void Analyzer::State::waitForOthers() {
    std::unique_lock<std::mutex> lock(mutex);
    if (!isActiveCallHere()) activeCallEnded.wait(lock, [this] { return activeCalls.empty(); });
}

bool Analyzer::State::isActiveCallHere() const {
    return std::find(activeCalls.begin(), activeCalls.end(), std::this_thread::get_id()) != activeCalls.end();
}

auto Analyzer::State::ActiveCall::begin(State& state, std::optional<Run> run) -> std::optional<ActiveCall> {
    const std::lock_guard lock(state.mutex);
    if (run ? *run != state.currentRun : state.ended.load()) return std::nullopt;
    return std::optional<ActiveCall>(std::in_place, state);
}

Analyzer::State::ActiveCall::~ActiveCall() {
    {
        const std::lock_guard lock(state_.mutex);
        auto& threads = state_.activeCalls;
        threads.erase(std::find(threads.begin(), threads.end(), std::this_thread::get_id()));
    }
    state_.activeCallEnded.notify_all();
}

auto Analyzer::State::runOfNewFrame() const -> Run {
    const std::lock_guard lock(mutex);
    return ended ? std::numeric_limits<Run>::max() : currentRun;
}

auto Analyzer::State::beginSelection(const Frame& frame) -> std::optional<Run> {
    Results replaced = frame.results;  // outlives the lock
    const std::lock_guard lock(mutex);
    if (currentRun != frame.run || selectionInProgress) return std::nullopt;
    selectionInProgress = true;
    if (replaced) results.swap(replaced);
    return beginRun();
}

// An announcement that still waits will not be made: the next good frame makes it again.
auto Analyzer::State::beginRun() -> Run {
    if (std::exchange(announcementWaits, false)) shouldStartCountdown = true;
    return ++currentRun;
}

std::shared_ptr<Analyzer> Analyzer::initWithParameters(std::shared_ptr<SelvioFacialCaptureParameters> parameters,
                                                       const Platform& platform) {
    if (!parameters) {
        log("An analyzer cannot be made without parameters");
        return nullptr;
    }
    if (!platform.mainQueue || !platform.globalQueue || !platform.makeSerialQueue) {
        log("An analyzer cannot be made on a platform without queues");
        return nullptr;
    }
    auto state = std::make_shared<State>(platform, std::move(parameters));
    if (!state->analysisQueue) {
        log("An analyzer cannot be made without an analysis queue");
        return nullptr;
    }
    logMissing(platform);
    return std::shared_ptr<Analyzer>(new Analyzer(std::move(state)));
}

Analyzer::SelvioFacialCaptureAnalyzer(std::shared_ptr<State> state) : state_(std::move(state)) {}

Analyzer::~SelvioFacialCaptureAnalyzer() {
    state_->endRuns();
    state_->setMotionUpdates(false);
    if (state_->leaveEventLog())
        log("An analyzer was destroyed without stop: its events stay in the log, for the next capture's record");
}

// A delegate or port called from here may release the analyzer, hence the second reference.
void Analyzer::setDelegate(std::weak_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate) {
    std::shared_ptr(state_)->setDelegate(std::move(delegate));
}
// clang-format off
void Analyzer::pause() { pauseFor(0); }
void Analyzer::pauseFor(std::int64_t reason) { std::shared_ptr(state_)->pauseFor(reason); }
void Analyzer::resume() { std::shared_ptr(state_)->resume(); }
void Analyzer::stop() { std::shared_ptr(state_)->stop(); }
void Analyzer::cancel() { std::shared_ptr(state_)->cancel(); }
void Analyzer::selectFrame() { state_->shouldSelectCurrentFrame = true; }
// clang-format on

void Analyzer::analyzeSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer) {
    if (inProgress()) return;  // most frames: not worth a reference
    std::shared_ptr(state_)->analyzeSampleBuffer(sampleBuffer);
}

void Analyzer::analyzeImageAtPath(const std::string& path) {
    withoutThrowing("A still image could not be analysed", [&] { std::shared_ptr(state_)->analyzeImageAtPath(path); });
}

void Analyzer::updateMode(std::int64_t mode) {
    if (const auto current = parameters()) current->setMode(mode);
}

std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> Analyzer::delegate() const {
    return state_->mutex.get(state_->delegate).lock();
}

std::shared_ptr<SelvioFacialCaptureParameters> Analyzer::parameters() const {
    return state_->mutex.get(state_->parameters);
}

// clang-format off
bool Analyzer::selectionInProgress() const { return state_->selectionInProgress; }
bool Analyzer::smileDetectionInProgress() const { return state_->smileDetectionInProgress; }
bool Analyzer::shouldSkipFrames() const { return state_->shouldSkipFrames; }
bool Analyzer::shouldSelectCurrentFrame() const { return state_->shouldSelectCurrentFrame; }
bool Analyzer::manualOnly() const { return state_->manualOnly; }
bool Analyzer::isDepthDetected() const { return true; }
bool Analyzer::shouldHoldStill() const { return state_->shouldHoldStill; }
bool Analyzer::shouldStartCountdown() const { return state_->shouldStartCountdown; }
bool Analyzer::inProgress() const { return *state_->inProgress; }
std::int64_t Analyzer::smileStatus() const { return state_->smileStatus; }
std::uint32_t Analyzer::exifOrientation() const { return state_->exifOrientation; }
std::shared_ptr<SelvioFacialCaptureResults> Analyzer::results() const { return state_->mutex.get(state_->results); }
std::vector<Image> Analyzer::imagesArray() const { return state_->history.images(); }
std::shared_ptr<SelvioFacialCaptureObixData> Analyzer::obixData() const { return state_->mutex.get(state_->obixData); }
Size Analyzer::resolution() const { return state_->mutex.get(state_->geometry).resolution; }
double Analyzer::biggerScreenSide() const { return state_->mutex.get(state_->geometry).biggerScreenSide; }
double Analyzer::smallerScreenSide() const { return state_->mutex.get(state_->geometry).smallerScreenSide; }
double Analyzer::biggerPreviewSide() const { return state_->mutex.get(state_->geometry).biggerPreviewSide; }
double Analyzer::smallerPreviewSide() const { return state_->mutex.get(state_->geometry).smallerPreviewSide; }
double Analyzer::wAdjuster() const { return state_->mutex.get(state_->geometry).wAdjuster; }
double Analyzer::hAdjuster() const { return state_->mutex.get(state_->geometry).hAdjuster; }
double Analyzer::xAdjuster() const { return state_->mutex.get(state_->geometry).xAdjuster; }
double Analyzer::yAdjuster() const { return state_->mutex.get(state_->geometry).yAdjuster; }
InterfaceOrientation Analyzer::statusbarOrientation() const { return state_->statusbarOrientation; }
double Analyzer::faceHorizontalFill() const { return state_->mutex.get(state_->face).measures.horizontalFill; }
Point Analyzer::noseMiddle() const { return state_->mutex.get(state_->face).noseMiddle; }
Point Analyzer::lipLeft() const { return state_->mutex.get(state_->face).lipLeft; }
Point Analyzer::lipRight() const { return state_->mutex.get(state_->face).lipRight; }
// clang-format on

void Analyzer::setObixData(std::shared_ptr<SelvioFacialCaptureObixData> obixData) {
    if (obixData) state_->mutex.set(state_->obixData, std::move(obixData));
}

void Analyzer::setResolution(Size resolution) {
    const std::lock_guard lock(state_->mutex);
    state_->geometry.setResolution(resolution);
}

std::uint32_t Analyzer::exifOrientationForDeviceOrientation(DeviceOrientation orientation) {
    return rules::exifOrientationFor(orientation);
}

std::uint32_t Analyzer::exifOrientationForCurrentDeviceOrientation() const {
    return state_->exifOrientationOfDevice();
}

std::uint32_t Analyzer::State::exifOrientationOfDevice() const {
    return rules::exifOrientationFor(platform.device ? platform.device->orientation() : DeviceOrientation::Unknown);
}

std::uint32_t Analyzer::cgOrientationFrom(ImageOrientation orientation) {
    return exifOrientationFor(orientation);
}
