// Construction, control and state of the analyzer.
#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>
#include <SelvioFacialCapture/base/Log.h>

#include <cmath>
#include <utility>

#include "analyzer/AnalyzerState.h"
#include "analyzer/rules/DeviceOrientation.h"

using namespace selvio;
using Analyzer = SelvioFacialCaptureAnalyzer;

namespace {

constexpr auto kMotionInterval = std::chrono::milliseconds(300);
constexpr double kHoldStillThreshold = 0.1;  // radians per second
constexpr int kSequenceHandlerLevel = 11;

template <typename T>
std::shared_ptr<T> made(const std::function<std::shared_ptr<T>()>& make) {
    return make ? make() : nullptr;
}

bool isRotating(const RotationRate& rate) {
    return std::abs(rate.x) > kHoldStillThreshold || std::abs(rate.y) > kHoldStillThreshold ||
           std::abs(rate.z) > kHoldStillThreshold;
}

std::string queueLabel(const char* name) {
    return std::string(kQueueLabelPrefix) + name;
}

}  // namespace

Analyzer::State::State(const Platform& ports)
    : platform(ports),
      statusbarOrientation(ports.screen ? ports.screen->statusBarOrientation() : InterfaceOrientation::Unknown),
      sequenceRequestHandler(ports.serviceLevel >= kSequenceHandlerLevel ? made(ports.makeSequenceRequestHandler)
                                                                         : nullptr),
      faceDetector(made(ports.makeFaceDetector)),
      framePool(PixelBufferPool::create()),
      analysisQueue(ports.makeSerialQueue(queueLabel(".frameAnalysisQueue"))) {
    obixData = SelvioFacialCaptureObixData::init(ports);
    results = std::make_shared<SelvioFacialCaptureResults>();
    motionManager = made(ports.makeMotionManager);
    if (ports.screen) geometry.setScreen(ports.screen->bounds());
    if (motionManager) motionManager->setDeviceMotionUpdateInterval(kMotionInterval);
}

rules::GateFlags Analyzer::State::gateFlags() const {
    return {.selectionInProgress = selectionInProgress,
            .shouldSkipFrames = shouldSkipFrames,
            .smileDetectionInProgress = smileDetectionInProgress};
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
    auto state = std::make_unique<State>(platform);
    if (!state->analysisQueue) {
        log("An analyzer cannot be made without an analysis queue");
        return nullptr;
    }
    state->parameters = std::move(parameters);
    return std::shared_ptr<Analyzer>(new Analyzer(std::move(state)));
}

Analyzer::SelvioFacialCaptureAnalyzer(std::unique_ptr<State> state) : state_(std::move(state)) {}

Analyzer::~SelvioFacialCaptureAnalyzer() {
    if (state_->motionManager) state_->motionManager->stopDeviceMotionUpdates();
}

void Analyzer::setDelegate(std::weak_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate) {
    const std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> host = delegate.lock();
    state_->mutex.set(state_->delegate, std::move(delegate));
    if (!host || state_->platform.serviceLevel >= State::kAutomaticAnalysisLevel) return;
    state_->manualOnly = true;
    updateMode(SelvioFacialCaptureModeManual);
    if (host->manualOnly) host->manualOnly();
}

void Analyzer::updateMode(std::int64_t mode) {
    if (const auto current = parameters()) current->setMode(mode);
}

void Analyzer::pause() {
    pauseFor(0);
}

void Analyzer::pauseFor(std::int64_t reason) {
    state_->shouldSkipFrames = true;
    state_->shouldStartCountdown = true;
    // Reasons 3 and 4 cross over.
    switch (reason) {
        case 1:
            addEvent(SelvioFacialCaptureUxpEventPauseReason1);
            break;
        case 2:
            addEvent(SelvioFacialCaptureUxpEventPauseReason2);
            break;
        case 3:
            addEvent(SelvioFacialCaptureUxpEventPauseReason3);
            break;
        case 4:
            addEvent(SelvioFacialCaptureUxpEventPauseReason4);
            break;
        default:
            break;
    }
    const std::lock_guard lock(state_->motionMutex);
    if (state_->motionManager) state_->motionManager->stopDeviceMotionUpdates();
}

void Analyzer::resume() {
    const auto current = parameters();
    if (!current) return;
    state_->shouldSkipFrames = false;
    state_->smileDetectionInProgress = false;
    state_->selectionInProgress = false;
    state_->shouldSelectCurrentFrame = false;
    addEvent(current->mode() == SelvioFacialCaptureModeAuto ? SelvioFacialCaptureUxpEventStartAuto
                                                            : SelvioFacialCaptureUxpEventStartManual);
    startMotionUpdates();
    obixData()->addParameters(current->toDictionary());
}

void Analyzer::startMotionUpdates() {
    const std::lock_guard lock(state_->motionMutex);
    // A pause that came meanwhile has set its flag and stopped the feed, or waits to.
    if (!state_->motionManager || state_->shouldSkipFrames) return;
    state_->motionManager->startDeviceMotionUpdates(
        state_->platform.makeSerialQueue(queueLabel(".deviceMotionQueue")),
        [weak = weak_from_this()](const DeviceMotion& motion, const std::optional<Error>&) {
            if (const auto self = weak.lock()) self->state_->shouldHoldStill = isRotating(motion.rotationRate);
        });
}

void Analyzer::stop() {
    {
        const std::lock_guard lock(state_->eventMutex);
        if (std::exchange(state_->spent, true)) return;
        SelvioFacialCaptureUxpEventManager::destroySharedInstance();
    }
    // The results go first: who finds no parameters must not find results to deliver.
    state_->mutex.set(state_->results, nullptr);
    state_->mutex.set(state_->parameters, nullptr);
    state_->mutex.set(state_->ciImage, std::nullopt);
    state_->history.close();
    const std::lock_guard lock(state_->motionMutex);
    if (const auto motion = std::exchange(state_->motionManager, nullptr)) motion->stopDeviceMotionUpdates();
}

void Analyzer::cancel() {
    const auto self = shared_from_this();  // the host may let go of the analyzer when it is told
    Results cancelled = results();
    if (!cancelled || state_->cancelling.exchange(true)) return;
    {
        const std::lock_guard lock(state_->closingMutex);
        // What a selection has filled may be in the host's hands already.
        if (cancelled->resultCode() != SelvioFacialCaptureResultCodeNone)
            cancelled = std::make_shared<SelvioFacialCaptureResults>();
        const auto record = obixData();
        const SelvioFacialCaptureResultCode code = SelvioFacialCaptureResultCodeCancelled;
        addEvent(SelvioFacialCaptureUxpEventCancelled);
        if (const auto log = events()) record->addUXP(*log);
        record->add({{"SelvioResultCode", *SelvioFacialCaptureResults::stringFrom(code)}});
        cancelled->setObixDataString(record->obixDataString());
        cancelled->setResultCode(code);
    }
    if (const auto host = delegate(); host && host->detectionCancelled) host->detectionCancelled(cancelled);
    stop();
}

void Analyzer::selectFrame() {
    state_->shouldSelectCurrentFrame = true;
}

void Analyzer::addEvent(SelvioFacialCaptureUxpEvent event) {
    const std::lock_guard lock(state_->eventMutex);
    if (state_->spent) return;  // the log may belong to the next capture by now
    SelvioFacialCaptureUxpEventManager::sharedInstance()->addEvent(event);
}

std::optional<nlohmann::json> Analyzer::events() const {
    const std::lock_guard lock(state_->eventMutex);
    if (state_->spent) return std::nullopt;
    return SelvioFacialCaptureUxpEventManager::sharedInstance()->events();
}

std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> Analyzer::delegate() const {
    return state_->mutex.get(state_->delegate).lock();
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
bool Analyzer::inProgress() const { return state_->inProgress; }
std::int64_t Analyzer::smileStatus() const { return state_->smileStatus; }
std::uint32_t Analyzer::exifOrientation() const { return state_->exifOrientation; }
std::shared_ptr<SelvioFacialCaptureParameters> Analyzer::parameters() const { return state_->mutex.get(state_->parameters); }
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
double Analyzer::faceHorizontalFill() const { return state_->mutex.get(state_->faceHorizontalFill); }
Point Analyzer::noseMiddle() const { return state_->mutex.get(state_->noseMiddle); }
Point Analyzer::lipLeft() const { return state_->mutex.get(state_->lipLeft); }
Point Analyzer::lipRight() const { return state_->mutex.get(state_->lipRight); }
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
    const auto& device = state_->platform.device;
    return rules::exifOrientationFor(device ? device->orientation() : DeviceOrientation::Unknown);
}

std::uint32_t Analyzer::cgOrientationFrom(ImageOrientation orientation) {
    return exifOrientationFor(orientation);
}
