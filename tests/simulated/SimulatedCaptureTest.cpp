#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "tests/simulated/SimulatedSupport.h"
#include "tests/support/CaptureProbe.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ManualClock.h"
#include "tests/support/ManualQueue.h"

namespace selvio {
namespace {

using namespace std::chrono_literals;
using test::CaptureProbe;
using ::testing::ElementsAre;

// A capture system and one session with everything joined.
struct Rig {
    explicit Rig(const std::string& keyFrames = kSteady,
                 const SimulatedCaptureOptions& options = {.pacing = SimulatedPacing::Manual},
                 const std::shared_ptr<const Clock>& otherClock = nullptr,
                 const std::shared_ptr<Queue>& otherQueue = nullptr)
        : frames(spotFrames(keyFrames)),
          system(std::make_shared<SimulatedCaptureSystem>(
              std::make_shared<SimulatedScene>(frames, otherClock ? otherClock : clock), options)) {
        clock->advance(1000s);
        for (const auto& device : {found(CaptureDevicePosition::Front).at(0), system->defaultDevice(MediaType::Audio)})
            session->addInput(system->makeDeviceInput(device).value());
        const auto used = otherQueue ? otherQueue : queue;
        probe = std::make_shared<CaptureProbe>(used);
        video->setSampleBufferDelegate(probe, used);
        audio->setSampleBufferDelegate(probe, used);
        metadata->setMetadataObjectsDelegate(probe, used);
        for (const std::shared_ptr<CaptureOutput>& output :
             {std::shared_ptr<CaptureOutput>(video), {audio}, {metadata}})
            session->addOutput(output);
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureDevice>> found(CaptureDevicePosition position) const {
        return system->discoverDevices({kCaptureDeviceTypeBuiltInWideAngleCamera}, MediaType::Video, position)->devices;
    }
    void step(std::chrono::nanoseconds time) {
        system->deliverFrameAt(time);
        queue->runAll();
    }

    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::shared_ptr<const SimulatedFrames> frames;
    std::shared_ptr<SimulatedCaptureSystem> system;
    std::shared_ptr<CaptureProbe> probe;
    std::shared_ptr<CaptureSession> session = system->makeSession();
    std::shared_ptr<VideoDataOutput> video = system->makeVideoDataOutput();
    std::shared_ptr<AudioDataOutput> audio = system->makeAudioDataOutput();
    std::shared_ptr<MetadataOutput> metadata = system->makeMetadataOutput();
};

TEST(SimulatedCapture, FindsItsDevices) {
    Rig rig;
    EXPECT_EQ(rig.found(CaptureDevicePosition::Unspecified).size(), 2U);
    const auto back = rig.found(CaptureDevicePosition::Back);
    ASSERT_EQ(back.size(), 1U);
    EXPECT_EQ(back[0]->uniqueId(), "simulated-back");
    rig.system->defaultDevice(MediaType::Video)->setTorchMode(TorchMode::On);
    EXPECT_EQ(rig.system->deviceState(CaptureDevicePosition::Back).torchMode, TorchMode::On);
}

TEST(SimulatedCapture, FramesFollowPresetFormatAndOrientation) {
    const std::tuple<const char*, PixelFormat, VideoOrientation, VideoFormatDescription> rows[] = {
        {kCaptureSessionPreset640x480, 0, VideoOrientation::Portrait, {kPixelFormat32BGRA, 480, 640}},
        {kCaptureSessionPreset1280x720, kPixelFormat420v, VideoOrientation::NotSet, {kPixelFormat420v, 1280, 720}},
        {kCaptureSessionPreset640x480,
         kPixelFormat32ARGB,
         VideoOrientation::LandscapeLeft,
         {kPixelFormat420v, 640, 480}},
    };
    const LogCapture logged;  // the third format is none that it delivers
    Rig rig;
    rig.session->startRunning();
    for (const auto& [preset, format, orientation, expected] : rows) {
        rig.session->setSessionPreset(preset);
        rig.video->setPixelFormat(format);
        rig.video->connections().at(0)->setVideoOrientation(orientation);
        rig.step(40ms);
        EXPECT_EQ(rig.probe->last_, expected) << preset;
        const auto settings = rig.video->recommendedVideoSettings(kFileTypeMPEG4);
        EXPECT_EQ(std::pair(settings.width, settings.height), std::pair(expected.width, expected.height));
    }
}

TEST(SimulatedCapture, PermissionsAnswerAsSet) {
    const std::tuple<AuthorizationStatus, bool, bool, AuthorizationStatus> rows[] = {
        {AuthorizationStatus::NotDetermined, true, true, AuthorizationStatus::Authorized},
        {AuthorizationStatus::NotDetermined, false, false, AuthorizationStatus::Denied},
        {AuthorizationStatus::Restricted, true, false, AuthorizationStatus::Restricted},
        {AuthorizationStatus::Authorized, false, true, AuthorizationStatus::Authorized},
    };
    for (const auto& [status, answer, expected, after] : rows) {
        Rig rig;
        rig.system->setAuthorizationStatus(MediaType::Audio, status);
        rig.system->setAccessAnswer(answer);
        std::optional<bool> granted;
        rig.system->requestAccess(MediaType::Audio, [&](bool answer) { granted = answer; });
        EXPECT_EQ(granted, expected);
        EXPECT_EQ(rig.system->authorizationStatus(MediaType::Audio), after);
        EXPECT_EQ(bool(rig.system->makeDeviceInput(rig.system->defaultDevice(MediaType::Audio))), expected);
        EXPECT_EQ(rig.system->authorizationStatus(MediaType::Video), AuthorizationStatus::Authorized);
    }
}

TEST(SimulatedCapture, DeliversTheFrameOfTheTimeOnItsStamp) {
    Rig rig(
        R"({"at": 0, "visible": true, "center": [0.5, 0.5], "jawWidth": 0.3, "noise": 2}, {"at": 1, "jawWidth": 0.6})");
    rig.session->startRunning();
    std::shared_ptr<SampleBuffer> sample;
    rig.probe->onFrame = [&](const auto& frame) { sample = frame; };
    EXPECT_EQ(rig.session->masterClockTime(), 1000s);
    rig.clock->advance(7s);  // time set by hand does not run with the clock
    rig.step(500ms);
    EXPECT_EQ(rig.session->masterClockTime(), 1000s + 500ms);
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->timing().presentationTime, 1000s + 500ms);
    EXPECT_EQ(sample->timing().duration, 33333333ns);
    const auto same = rig.frames->frame(500ms, 1280, 720, kPixelFormat32BGRA);
    EXPECT_EQ(std::memcmp(sample->imageBuffer()->data(), same->data(), same->layout().byteSize()), 0);
}

TEST(SimulatedCapture, FaultsOfARunningSession) {
    Rig rig;
    LogCapture logged;
    rig.session->startRunning();
    rig.system->setFaults({.dropEvery = 3});
    for (int i = 0; i < 6; ++i) rig.step(i * 33ms);
    EXPECT_EQ(rig.probe->frames_.size(), 4u);
    EXPECT_EQ(rig.probe->drops_.size(), 2u);

    const std::size_t sounds = rig.probe->sounds_.size();
    rig.system->setFaults({.framesStall = true});
    rig.step(400ms);
    EXPECT_EQ(rig.probe->frames_.size() + rig.probe->drops_.size(), 6u);
    EXPECT_GT(rig.probe->sounds_.size(), sounds);
    EXPECT_TRUE(rig.session->isRunning());

    rig.system->setFaults({.deviceLost = true});
    rig.step(500ms);
    EXPECT_FALSE(rig.session->isRunning());
    EXPECT_EQ(rig.probe->frames_.size(), 4u);
    rig.session->startRunning();
    EXPECT_FALSE(rig.session->isRunning());
    EXPECT_EQ(rig.system->defaultDevice(MediaType::Video), nullptr);
    rig.system->setFaults({.noCamera = true, .noMicrophone = true, .startFails = true});
    EXPECT_EQ(rig.system->defaultDevice(MediaType::Video), nullptr);
    EXPECT_EQ(rig.system->defaultDevice(MediaType::Audio), nullptr);
    rig.session->startRunning();
    EXPECT_FALSE(rig.session->isRunning());
    EXPECT_THAT(logged.take(), ElementsAre("The simulated camera was disconnected",
                                           "The simulated session could not start: the camera is disconnected",
                                           "The simulated session could not start: it is set to fail"));
    rig.system->setFaults({});
    rig.session->startRunning();
    rig.step(600ms);
    EXPECT_EQ(rig.probe->frames_.size(), 5u);
    rig.session->stopRunning();
    rig.step(700ms);
    EXPECT_EQ(rig.probe->frames_.size(), 5u);
}

TEST(SimulatedCapture, CodesComeWhenTheyAreLookedFor) {
    Rig rig(std::string(kSteady) + R"(,{"at": 1, "barcode": "M1SMITH"}, {"at": 2, "barcode": null})");
    rig.session->startRunning();
    rig.step(1500ms);
    EXPECT_TRUE(rig.probe->objects_.empty());
    rig.metadata->setMetadataObjectTypes({kMetadataObjectTypePDF417Code});
    rig.system->setFaults({.framesStall = true});
    rig.step(1500ms);
    EXPECT_TRUE(rig.probe->objects_.empty());
    rig.system->setFaults({});
    for (const auto time : {500ms, 1500ms, 2500ms}) rig.step(time);
    ASSERT_EQ(rig.probe->objects_.size(), 1u);
    EXPECT_EQ(rig.probe->objects_[0].stringValue, "M1SMITH");
}

// By itself, on a queue of its own.
TEST(SimulatedCapture, RunsUntilItsDelegateStopsItAndWhateverManyThreadsDo) {
    const auto frameQueue = std::make_shared<SerialQueue>("frames");
    Rig rig(kSteady, {.frameRate = 240}, std::make_shared<SystemClock>(), frameQueue);
    rig.session->setSessionPreset(kCaptureSessionPreset640x480);
    std::atomic<bool> stops{true};
    rig.probe->onFrame = [&](const auto&) {
        if (stops.exchange(false)) rig.session->stopRunning();
    };
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(1));
    frameQueue->drain();
    EXPECT_FALSE(rig.session->isRunning());

    const LogCapture logged;
    const std::function<void(int)> works[] = {
        [&](int) { rig.session->startRunning(); },
        [&](int) { rig.session->stopRunning(); },
        [&](int i) { rig.video->setSampleBufferDelegate(i % 2 == 0 ? nullptr : rig.probe, frameQueue); },
        [&](int i) { rig.system->setFaults({.deviceLost = i % 16 == 0, .dropEvery = i % 3}); },
        [&](int i) { i % 2 == 0 ? rig.session->removeOutput(rig.audio) : rig.session->addOutput(rig.audio); },
    };
    std::vector<std::thread> threads;
    for (const auto& work : works) {
        threads.emplace_back([&work] {
            for (int i = 0; i < 200; ++i) work(i);
        });
    }
    for (auto& thread : threads) thread.join();
    rig.system->setFaults({});
    rig.video->setSampleBufferDelegate(rig.probe, frameQueue);
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(3));  // and the running session's end is the end of its thread
}

TEST(SimulatedMotionManager, ReadsTheScriptUntilStopped) {
    Rig rig(R"({"at": 0, "visible": false, "rotationRate": [0, 0.5, 0]}, {"at": 1, "rotationRate": [0, 0, 0]})");
    Platform platform;
    platform.clock = rig.clock;
    useSimulatedCamera(platform, rig.frames);
    const auto manager = platform.makeMotionManager();
    std::vector<double> rates;
    manager->setDeviceMotionUpdateInterval(300ms);
    manager->startDeviceMotionUpdates(rig.queue, [&](const DeviceMotion& motion, const std::optional<Error>&) {
        rates.push_back(motion.rotationRate.y);
    });
    for (int i = 0; i < 4; ++i) {
        rig.clock->advance(300ms);
        rig.queue->advance(300ms);
    }
    ASSERT_EQ(rates.size(), 4u);
    EXPECT_NEAR(rates[0], 0.35, 1e-6);
    EXPECT_NEAR(rates[3], 0.0, 1e-6);
    manager->stopDeviceMotionUpdates();
    rig.queue->advance(10s);
    EXPECT_EQ(rates.size(), 4u);
}

TEST(SimulatedPlatform, ItsDetectorSaysWhatTheScriptSays) {
    Platform platform;
    platform.clock = std::make_shared<ManualClock>();
    const auto system = useSimulatedCamera(
        platform, spotFrames(std::string(kSteady) + R"(,{"at": 2, "smiling": true}, {"at": 3, "visible": false})"));
    const auto detector = platform.makeFaceDetector();
    for (const auto& [time, faces, smiles] : {std::tuple{1s, 1U, false}, {2s, 1U, true}, {3s, 0U, false}}) {
        system->scene()->setTime(time);
        const auto found =
            detector->featuresInImage({.bitmap = PixelBuffer::create(720, 1280, kPixelFormat32BGRA)}, true);
        EXPECT_EQ(found.size(), faces);
        EXPECT_EQ(!found.empty() && found[0].hasSmile, smiles);
    }
}

}  // namespace
}  // namespace selvio
