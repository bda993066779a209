#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "camera/CameraState.h"
#include "camera/SampleReceiver.h"
#include "camera/SessionConfiguration.h"
#include "camera/VideoRecorder.h"
#include "camera/rules/SessionRules.h"
#include "platform/MissingPorts.h"

using selvio::CameraValues;

namespace {

constexpr std::chrono::milliseconds kTorchDelay(100);
constexpr std::int64_t kBlurViewTag = 77;
constexpr std::int64_t kBlurStyleLight = 1;
constexpr const char* kFrameKey = "Frame";

/// Does nothing on a platform without that queue.
void dispatch(const std::shared_ptr<selvio::Queue>& queue, selvio::Queue::Block block) {
    if (queue) queue->async(std::move(block));
}

/// A destroyed camera could never stop what would begin here.
void beginRecording(const std::shared_ptr<selvio::Queue>& outputQueue, std::weak_ptr<const void> camera,
                    std::shared_ptr<selvio::VideoRecorder> recorder) {
    dispatch(outputQueue, [camera = std::move(camera), recorder = std::move(recorder)] {
        if (!camera.expired()) recorder->start();
    });
}

void logMissing(const selvio::Platform& ports) {
    selvio::logMissingPorts({
        {ports.captureSystem != nullptr, "captureSystem", "there is no camera"},
        {ports.makeSerialQueue != nullptr, "makeSerialQueue", "the camera is never configured"},
        {ports.mainQueue != nullptr, "mainQueue", "the torch is not switched on"},
        {ports.clock != nullptr, "clock", "nothing is recorded"},
        {ports.assetWriters != nullptr, "assetWriters", "nothing is recorded"},
        {ports.fileManager != nullptr, "fileManager", "nothing is recorded"},
    });
}

std::shared_ptr<selvio::View> makeView(const selvio::Platform& platform) {
    auto view = platform.makeView ? platform.makeView() : nullptr;
    return view ? view : std::make_shared<selvio::PlainView>();
}

std::optional<selvio::Rect> decodeFrame(std::string_view archive) {
    const nlohmann::json root = nlohmann::json::parse(archive, nullptr, /*allow_exceptions=*/false);
    if (!root.is_object()) return std::nullopt;
    const auto frame = root.find(kFrameKey);
    if (frame == root.end() || !frame->is_array() || frame->size() != 4) return std::nullopt;
    for (const auto& number : *frame) {
        if (!number.is_number()) return std::nullopt;
    }
    return selvio::Rect{(*frame)[0].get<double>(), (*frame)[1].get<double>(), (*frame)[2].get<double>(),
                        (*frame)[3].get<double>()};
}

}  // namespace

/// What work on the session queue needs of its camera, which it does not own: a camera that is destroyed meanwhile
/// waits neither for the work nor for its queue.
struct SelvioFacialCaptureCamera::SessionWork {
    selvio::Platform platform;
    std::shared_ptr<selvio::CameraState> state;
    std::shared_ptr<selvio::CaptureOutputDelegate> receiver;
    std::shared_ptr<selvio::VideoRecorder> recorder;
    std::weak_ptr<const void> camera;
    std::shared_ptr<selvio::Queue> queue;
    std::shared_ptr<selvio::Queue> outputQueue;
};

// ---- Construction ----

SelvioFacialCaptureCamera::SelvioFacialCaptureCamera(selvio::Platform platform)
    : platform_(std::move(platform)), view_(makeView(platform_)), state_(std::make_shared<selvio::CameraState>()) {}

// A delegate that took a reference for the length of a call may hold the last one. The view still ends on the main
// thread.
SelvioFacialCaptureCamera::~SelvioFacialCaptureCamera() {
    if (std::this_thread::get_id() != mainThread_) dispatch(platform_.mainQueue, [view = view_] {});
}

std::shared_ptr<SelvioFacialCaptureCamera> SelvioFacialCaptureCamera::make(selvio::Platform platform) {
    std::shared_ptr<SelvioFacialCaptureCamera> camera(new SelvioFacialCaptureCamera(std::move(platform)));
    camera->commonInit();
    return camera;
}

void SelvioFacialCaptureCamera::commonInit() {
    logMissing(platform_);
    setParameters(std::make_shared<SelvioFacialCaptureCameraParameters>());
    setSession(platform_.captureSystem ? platform_.captureSystem->makeSession() : nullptr);
    if (platform_.makeSerialQueue) {
        videoQueue_ = platform_.makeSerialQueue(std::string(selvio::kQueueLabelPrefix) + ".avCaptureSessionQueue");
        videoOutputQueue_ = platform_.makeSerialQueue(std::string(selvio::kQueueLabelPrefix) + ".videoDataOutputQueue");
    }
    // All other properties have their defaults in CameraValues.
    recorder_ = std::make_shared<selvio::VideoRecorder>(platform_, state_, videoOutputQueue_);
    receiver_ = std::make_shared<selvio::SampleReceiver>(state_, recorder_, videoOutputQueue_);
    observe(selvio::ApplicationNotification::WillResignActive, &SelvioFacialCaptureCamera::handleAppEnteredBackground);
    observe(selvio::ApplicationNotification::DidBecomeActive, &SelvioFacialCaptureCamera::handleAppDidBecomeActive);
    observe(selvio::ApplicationNotification::WillTerminate, &SelvioFacialCaptureCamera::handleApplicationWillTerminate);
}

std::shared_ptr<SelvioFacialCaptureCamera> SelvioFacialCaptureCamera::init(selvio::Platform platform) {
    return make(std::move(platform));
}

std::shared_ptr<SelvioFacialCaptureCamera> SelvioFacialCaptureCamera::initWithCoder(std::string_view archive,
                                                                                    selvio::Platform platform) {
    auto camera = make(std::move(platform));
    if (const auto frame = decodeFrame(archive)) camera->view_->setFrame(*frame);
    return camera;
}

std::shared_ptr<SelvioFacialCaptureCamera> SelvioFacialCaptureCamera::initWithPreset(
    std::optional<std::string> preset, std::int64_t format, selvio::CaptureDevicePosition position,
    selvio::VideoOrientation orientation, selvio::Rect frame, selvio::Platform platform) {
    auto camera = make(std::move(platform));
    camera->view_->setFrame(frame);
    camera->setDevicePosition(position);
    camera->setPixelBufferFormat(format);
    camera->setSessionPreset(std::move(preset));
    camera->setCameraOrientation(orientation);
    return camera;
}

std::shared_ptr<SelvioFacialCaptureCamera> SelvioFacialCaptureCamera::initWithPreset(
    std::optional<std::string> preset, std::int64_t format, selvio::CaptureDevicePosition position, selvio::Rect frame,
    selvio::Platform platform) {
    return initWithPreset(std::move(preset), format, position, selvio::VideoOrientation::Portrait, frame,
                          std::move(platform));
}

std::shared_ptr<SelvioFacialCaptureCamera> SelvioFacialCaptureCamera::initWithDesiredResolution(
    selvio::Size resolution, std::int64_t format, selvio::CaptureDevicePosition position, selvio::Rect frame,
    selvio::Platform platform) {
    auto camera =
        initWithPreset(std::nullopt, format, position, selvio::VideoOrientation::NotSet, frame, std::move(platform));
    camera->setDesiredResolution(resolution);
    return camera;
}

std::string SelvioFacialCaptureCamera::encodeWithCoder() const {
    const selvio::Rect frame = view_->frame();
    return nlohmann::json{{kFrameKey, {frame.x, frame.y, frame.width, frame.height}}}.dump();
}

// ---- Delegate and control ----

void SelvioFacialCaptureCamera::setDelegate(const std::shared_ptr<SelvioFacialCaptureCameraDelegate>& value) {
    state_->delegateSlot()->set(value);
    if (!value) return;
    onSessionQueue([](const SessionWork& on) {
        selvio::configureSession({on.platform, on.state, on.receiver, on.outputQueue, on.camera});
    });
}

void SelvioFacialCaptureCamera::onSessionQueue(void (*work)(const SessionWork&)) {
    dispatch(videoQueue_, [weakSelf = weak_from_this(), work] {
        auto self = weakSelf.lock();
        if (!self) return;
        SELVIO_ASSERT_ON_QUEUE(self->videoQueue_);
        const SessionWork on{self->platform_, self->state_,      self->receiver_,        self->recorder_,
                             weakSelf,        self->videoQueue_, self->videoOutputQueue_};
        self.reset();
        work(on);
    });
}

void SelvioFacialCaptureCamera::start() {
    onSessionQueue([](const SessionWork& on) {
        beginRecording(on.outputQueue, on.camera, on.recorder);
        const auto session = on.state->session();
        if (session && !session->isRunning()) session->startRunning();
    });
}

void SelvioFacialCaptureCamera::stop() {
    turnTorchOff();
    const auto session = this->session();
    if (!session) return;
    const std::lock_guard lock(session->monitor());
    if (!session->isRunning()) return;
    if (state_->recordVideo()) {
        // What is being written now is finished even if it fails meanwhile, so that the failure is reported. Otherwise
        // it shows on the queue where recordings begin: a start may still be waiting there.
        const auto writer = assetWriter();
        const bool isWriting = writer && writer->status() == selvio::AssetWriterStatus::Writing;
        dispatch(videoOutputQueue_,
                 [recorder = recorder_, isWriting] { isWriting ? recorder->stop() : recorder->stopIfWriting(); });
    }
    session->stopRunning();
}

void SelvioFacialCaptureCamera::shutdown() {
    if (platform_.notificationCenter) platform_.notificationCenter->removeObserver(this);
    const auto session = this->session();
    if (!session) return state_->delegateSlot()->close();
    {
        const std::lock_guard lock(session->monitor());
        selvio::dismantleSession(*session, *state_);
        setSession(nullptr);
    }
    // Without the monitor, which a delegate that is being called may be waiting for.
    state_->delegateSlot()->close();
}

bool SelvioFacialCaptureCamera::hasTorch() const {
    const auto device = videoDevice();
    return device && device->hasTorch();
}

bool SelvioFacialCaptureCamera::turnTorchOn() {
    if (!hasTorch() || !platform_.mainQueue) return false;
    platform_.mainQueue->asyncAfter(kTorchDelay, [weakSelf = weak_from_this()] {
        const auto self = weakSelf.lock();
        if (const auto device = self ? self->videoDevice() : nullptr) self->setTorch(*device, selvio::TorchMode::On);
    });
    return true;
}

bool SelvioFacialCaptureCamera::turnTorchOff() {
    const auto device = videoDevice();
    if (!device || !device->hasTorch()) return false;
    setTorch(*device, selvio::TorchMode::Off);
    return true;
}

void SelvioFacialCaptureCamera::setTorch(selvio::CaptureDevice& device, selvio::TorchMode mode) {
    // Threads that switch at once each continue until nothing newer is asked for: then the device and `isTorchON` agree
    // on the last wish, and no lock is held while the device is called.
    std::uint64_t wish = torchWish_;
    while (!torchWish_.compare_exchange_weak(wish, (wish | 1) + 1 + (mode == selvio::TorchMode::On ? 1 : 0))) {
    }
    do {
        wish = torchWish_;
        const bool on = (wish & 1) != 0;
        (void)device.lockForConfiguration();
        device.setTorchMode(on ? selvio::TorchMode::On : selvio::TorchMode::Off);
        state_->set(&CameraValues::isTorchON, on);
        device.unlockForConfiguration();
    } while (wish != torchWish_);
}

void SelvioFacialCaptureCamera::updatePreviewLayer(selvio::VideoOrientation orientation) {
    const bool torchWasOn = isTorchON();
    if (selvio::rules::isOrientation(orientation)) {
        const auto layer = videoPreviewLayer();
        if (const auto connection = layer ? layer->connection() : nullptr) connection->setVideoOrientation(orientation);
        if (const auto session = this->session()) selvio::orientOutputs(*session, cameraOrientation());
    }
    if (torchWasOn) turnTorchOn();
}

// ---- Recording ----

void SelvioFacialCaptureCamera::startRecording() {
    beginRecording(videoOutputQueue_, weak_from_this(), recorder_);
}

void SelvioFacialCaptureCamera::stopRecording() {
    dispatch(videoOutputQueue_, [recorder = recorder_] { recorder->stop(); });
}

void SelvioFacialCaptureCamera::discardRecording() {
    dispatch(videoOutputQueue_, [recorder = recorder_] { recorder->discard(); });
}

void SelvioFacialCaptureCamera::deleteCurrentRecording() {
    recorder_->deleteCurrentRecording();
}

std::optional<std::filesystem::path> SelvioFacialCaptureCamera::url() const {
    return recorder_->url();
}

void SelvioFacialCaptureCamera::cleanupBrokenVideos() {
    recorder_->cleanupBrokenVideos();
}

// ---- Permissions ----

void SelvioFacialCaptureCamera::permissionFor(selvio::MediaType mediaType,
                                              std::function<void(bool granted)> permissionGranted,
                                              const selvio::Platform& platform) {
    const auto answer = [&permissionGranted](bool granted) {
        if (permissionGranted) permissionGranted(granted);
    };
    if (!platform.captureSystem) return answer(false);
    switch (platform.captureSystem->authorizationStatus(mediaType)) {
        case selvio::AuthorizationStatus::Restricted:
        case selvio::AuthorizationStatus::Denied:
            return answer(false);
        case selvio::AuthorizationStatus::Authorized:
            return answer(true);
        case selvio::AuthorizationStatus::NotDetermined:
            platform.captureSystem->requestAccess(mediaType,
                                                  [permissionGranted = std::move(permissionGranted)](bool granted) {
                                                      if (permissionGranted) permissionGranted(granted);
                                                  });
            return;
    }
}

void SelvioFacialCaptureCamera::checkCameraPermission(std::function<void(bool granted)> completion,
                                                      const selvio::Platform& platform) {
    permissionFor(selvio::MediaType::Video, std::move(completion), platform);
}

void SelvioFacialCaptureCamera::checkMicrophonePermission(std::function<void(bool granted)> completion,
                                                          const selvio::Platform& platform) {
    permissionFor(selvio::MediaType::Audio, std::move(completion), platform);
}

// ---- Life cycle of the application. On the main thread. ----

void SelvioFacialCaptureCamera::observe(selvio::ApplicationNotification notification,
                                        void (SelvioFacialCaptureCamera::*handler)()) {
    if (!platform_.notificationCenter) return;
    platform_.notificationCenter->addObserver(shared_from_this(), notification, [weakSelf = weak_from_this(), handler] {
        if (const auto self = weakSelf.lock()) (self.get()->*handler)();
    });
}

void SelvioFacialCaptureCamera::handleAppEnteredBackground() {
    selvio::Rect frame = view_->frame();
    if (platform_.screen) frame = {0.0, 0.0, platform_.screen->bounds().width, platform_.screen->bounds().height};
    view_->addSubview({kBlurStyleLight, kBlurViewTag, frame});
}

void SelvioFacialCaptureCamera::handleAppDidBecomeActive() {
    view_->removeSubviewWithTag(kBlurViewTag);
}

void SelvioFacialCaptureCamera::handleApplicationWillTerminate() {
    cleanupBrokenVideos();
}

// ---- Properties ----

std::shared_ptr<selvio::CaptureSession> SelvioFacialCaptureCamera::session() const {
    return state_->session();
}

void SelvioFacialCaptureCamera::setSession(std::shared_ptr<selvio::CaptureSession> value) {
    auto layer = videoPreviewLayer();
    if (!layer) {
        layer = view_->layer();
        if (!layer) return;
        state_->set(&CameraValues::videoPreviewLayer, layer);
        layer->setVideoGravity(selvio::kVideoGravityResizeAspectFill);
    }
    layer->setSession(std::move(value));
}

void SelvioFacialCaptureCamera::setPreset(std::optional<std::string> preset, std::int64_t format) {
    setPreset(std::move(preset), format, selvio::CaptureDevicePosition::Back);
}

void SelvioFacialCaptureCamera::setPreset(std::optional<std::string> preset, std::int64_t format,
                                          selvio::CaptureDevicePosition position) {
    setPixelBufferFormat(format);
    setDevicePosition(position);
    setSessionPreset(std::move(preset));
}

// The rest forwards to the state. PROPERTY(type, getter, setter)
// clang-format off
#define SELVIO_CAMERA_PROPERTY(Type, name, setName) \
    Type SelvioFacialCaptureCamera::name() const { return state_->get(&CameraValues::name); } \
    void SelvioFacialCaptureCamera::setName(Type value) { state_->set(&CameraValues::name, std::move(value)); }

SELVIO_CAMERA_PROPERTY(bool, analyzeRGBVideo, setAnalyzeRGBVideo)
SELVIO_CAMERA_PROPERTY(bool, detectPDF417, setDetectPDF417)
SELVIO_CAMERA_PROPERTY(bool, deliverDepthData, setDeliverDepthData)
SELVIO_CAMERA_PROPERTY(selvio::CaptureDevicePosition, devicePosition, setDevicePosition)
SELVIO_CAMERA_PROPERTY(std::int64_t, pixelBufferFormat, setPixelBufferFormat)
SELVIO_CAMERA_PROPERTY(std::optional<std::string>, sessionPreset, setSessionPreset)
SELVIO_CAMERA_PROPERTY(selvio::Size, desiredResolution, setDesiredResolution)
SELVIO_CAMERA_PROPERTY(selvio::VideoOrientation, cameraOrientation, setCameraOrientation)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<SelvioFacialCaptureCameraParameters>, parameters, setParameters)
SELVIO_CAMERA_PROPERTY(bool, shouldRecord, setShouldRecord)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::CaptureDeviceDiscoverySession>, discoverySession, setDiscoverySession)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::CaptureDevice>, videoDevice, setVideoDevice)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::CaptureDeviceInput>, videoInput, setVideoInput)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::CaptureDevice>, audioDevice, setAudioDevice)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::CaptureDeviceInput>, audioInput, setAudioInput)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::VideoDataOutput>, videoDataOutput, setVideoDataOutput)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::AudioDataOutput>, audioDataOutput, setAudioDataOutput)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::MetadataOutput>, metaDataOutput, setMetaDataOutput)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::AssetWriter>, assetWriter, setAssetWriter)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::AssetWriterInput>, writerVideoInput, setWriterVideoInput)
SELVIO_CAMERA_PROPERTY(std::shared_ptr<selvio::AssetWriterInput>, writerAudioInput, setWriterAudioInput)
SELVIO_CAMERA_PROPERTY(std::optional<std::filesystem::path>, videoRecordingUrl, setVideoRecordingUrl)

#undef SELVIO_CAMERA_PROPERTY
// clang-format on

std::shared_ptr<SelvioFacialCaptureCameraDelegate> SelvioFacialCaptureCamera::delegate() const {
    return state_->delegate();
}

bool SelvioFacialCaptureCamera::isConfigured() const {
    return state_->get(&CameraValues::configured);
}

bool SelvioFacialCaptureCamera::isTorchON() const {
    return state_->get(&CameraValues::isTorchON);
}

bool SelvioFacialCaptureCamera::isTorchOn() const {
    return isTorchON();
}

selvio::Size SelvioFacialCaptureCamera::resolution() const {
    return state_->get(&CameraValues::resolution);
}

std::shared_ptr<selvio::PreviewLayer> SelvioFacialCaptureCamera::videoPreviewLayer() const {
    return state_->get(&CameraValues::videoPreviewLayer);
}

const std::shared_ptr<selvio::Queue>& SelvioFacialCaptureCamera::videoQueue() const {
    return videoQueue_;
}

const std::shared_ptr<selvio::Queue>& SelvioFacialCaptureCamera::videoOutputQueue() const {
    return videoOutputQueue_;
}

const std::shared_ptr<selvio::View>& SelvioFacialCaptureCamera::view() const {
    return view_;
}
