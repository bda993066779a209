#include <SelvioFacialCapture/base/SerialQueue.h>
#include <gmock/gmock.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "tests/simulated/SimulatedRig.h"
#include "tests/support/LogCapture.h"

namespace selvio {
namespace {

using namespace std::chrono_literals;
using ::testing::DoubleNear;
using ::testing::ElementsAre;

TEST(SimulatedCapture, TheTorchIsThatOfTheCameraBehind) {
    const SimulatedRig rig;
    rig.system->defaultDevice(MediaType::Video)->setTorchMode(TorchMode::On);
    EXPECT_EQ(rig.system->deviceState(CaptureDevicePosition::Back).torchMode, TorchMode::On);
    EXPECT_EQ(rig.system->deviceState(CaptureDevicePosition::Front).torchMode, TorchMode::Off);
}

TEST(SimulatedCapture, PermissionsAnswerAsSet) {
    using enum AuthorizationStatus;
    for (const auto& [status, answer, after] : {std::tuple{NotDetermined, true, Authorized},
                                                {NotDetermined, false, Denied},
                                                {Restricted, true, Restricted},
                                                {Authorized, false, Authorized}}) {
        const SimulatedRig rig;
        rig.system->setAuthorizationStatus(MediaType::Audio, status);
        rig.system->setAccessAnswer(answer);
        std::optional<bool> granted;
        rig.system->requestAccess(MediaType::Audio, [&](bool given) { granted = given; });
        EXPECT_EQ(granted, after == Authorized);
        EXPECT_EQ(rig.system->authorizationStatus(MediaType::Audio), after);
        EXPECT_EQ(bool(rig.system->makeDeviceInput(rig.system->defaultDevice(MediaType::Audio))), granted);
    }
}

TEST(SimulatedCapture, DeliversTheFrameOfTheTimeOnItsStamp) {
    SimulatedRig rig(
        R"({"at": 0, "visible": true, "center": [0.5, 0.5], "jawWidth": 0.3, "noise": 2}, {"at": 1, "jawWidth": 0.6})");
    rig.session->startRunning();
    std::shared_ptr<SampleBuffer> sample;
    rig.probe->onFrame = [&](const auto& frame) { sample = frame; };
    rig.clock->advance(7s);  // time set by hand does not run with the clock
    rig.step(500ms);
    EXPECT_EQ(rig.session->masterClockTime(), 1000s + 500ms);
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->timing().presentationTime, 1000s + 500ms);
    EXPECT_EQ(sample->timing().duration, 33333333ns);
    const auto same = rig.frames->frame(500ms, 1280, 720, kPixelFormat32BGRA);
    EXPECT_EQ(std::memcmp(sample->imageBuffer()->data(), same->data(), same->layout().byteSize()), 0);
}

TEST(SimulatedCapture, FaultsAndCodesOfARunningSession) {
    SimulatedRig rig(std::string(kSteady) + R"(,{"at": 1, "barcode": "M1SMITH"}, {"at": 2, "barcode": null})");
    LogCapture logged;
    rig.session->startRunning();
    rig.system->setFaults({.dropEvery = 3});
    for (int i = 0; i < 6; ++i) rig.step(1200ms + i * 33ms);
    EXPECT_THAT(rig.received(), ElementsAre(4, 2, 0)) << "no code was looked for";
    rig.metadata->setMetadataObjectTypes({kMetadataObjectTypePDF417Code});
    const std::size_t sounds = rig.probe->sounds_.size();
    rig.system->setFaults({.framesStall = true});
    rig.step(1700ms);
    EXPECT_THAT(rig.received(), ElementsAre(4, 2, 0));
    EXPECT_GT(rig.probe->sounds_.size(), sounds);

    rig.system->setFaults({.deviceLost = true});
    rig.step(1750ms);
    EXPECT_FALSE(rig.session->isRunning());
    rig.session->startRunning();
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
    for (const auto time : {500ms, 1800ms, 2500ms}) rig.step(time);
    rig.session->stopRunning();
    rig.step(2600ms);
    EXPECT_THAT(rig.received(), ElementsAre(7, 2, 1));
    EXPECT_EQ(rig.probe->objects_.at(0).stringValue, "M1SMITH");
}

// By itself, on a queue of its own.
TEST(SimulatedCapture, RunsUntilItsDelegateStopsItAndWhateverManyThreadsDo) {
    const auto frameQueue = std::make_shared<SerialQueue>("frames");
    SimulatedRig rig(kSteady, {.frameRate = 240}, frameQueue);
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
    SimulatedRig rig(
        R"({"at": 0, "visible": false, "rotationRate": [0, 0.5, 0]}, {"at": 1, "rotationRate": [0, 0, 0]})");
    const auto manager = rig.platform.makeMotionManager();
    std::vector<double> rates;
    manager->setDeviceMotionUpdateInterval(300ms);
    manager->startDeviceMotionUpdates(rig.queue, [&](const DeviceMotion& motion, const std::optional<Error>&) {
        rates.push_back(motion.rotationRate.y);
    });
    for (int i = 0; i < 4; ++i) {
        rig.clock->advance(300ms);
        rig.queue->advance(300ms);
    }
    manager->stopDeviceMotionUpdates();
    rig.queue->advance(10s);
    EXPECT_THAT(rates, ElementsAre(DoubleNear(0.35, 1e-6), DoubleNear(0.2, 1e-6), DoubleNear(0.05, 1e-6), 0.0));
}

TEST(SimulatedPlatform, ItsDetectorSaysWhatTheScriptSays) {
    SimulatedRig rig(std::string(kSteady) + R"(,{"at": 2, "smiling": true}, {"at": 3, "visible": false})");
    const auto detector = rig.platform.makeFaceDetector();
    std::vector<bool> smiles;
    for (const auto time : {1s, 2s, 3s}) {
        rig.system->scene()->setTime(time);
        for (const auto& face :
             detector->featuresInImage({.bitmap = PixelBuffer::create(72, 128, kPixelFormat32BGRA)}, true))
            smiles.push_back(face.hasSmile);
    }
    EXPECT_THAT(smiles, ElementsAre(false, true)) << "and at last nobody";
    rig.system->scene()->restart();
    EXPECT_EQ(detector->featuresInImage({.bitmap = PixelBuffer::create(72, 128, kPixelFormat32BGRA)}, true).size(), 1U);

    const auto view = rig.platform.makeView();
    view->setFrame({0, 0, 200, 100});
    EXPECT_EQ(view->layer()->transformedMetadataObject({"PDF417", "text", {0.125, 0.25, 0.5, 0.5}}).bounds,
              (Rect{25, 25, 100, 50}));
}

}  // namespace
}  // namespace selvio
