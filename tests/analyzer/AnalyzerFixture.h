// An analyzer over fakes, on queues that the test runs.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <gmock/gmock.h>

#include "support/FakeDevice.h"
#include "support/FakeImageCodec.h"
#include "support/FakeVision.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ManualQueue.h"

namespace selvio {

/// A face on a screen of 1000 x 1700, described by the points that the checks read. As it stands nothing is wrong with
/// it.
struct ScreenFace {
    Point left{190, 700};   ///< contour end at the left of the screen
    Point right{810, 700};  ///< contour end at the right
    double chin = 1200;     ///< y
    double noseLeft = 460;  ///< x

    FaceObservation observation() const {
        // The box is the whole frame, so that points are normalized to the screen; the detector's axes are swapped.
        const auto region = [](std::size_t size, const std::map<std::size_t, Point>& points) {
            std::vector<Point> all(size);
            for (const auto& [index, p] : points) all[index] = {p.y / 1700.0, p.x / 1000.0};
            return FaceLandmarkRegion{all};
        };
        return {.boundingBox = {0, 0, 1, 1},
                .landmarks = FaceLandmarks{region(17, {{16, left}, {0, right}, {8, {500, chin}}}),
                                           region(9, {{2, {noseLeft, 900}}, {4, {500, 900}}, {6, {540, 900}}}),
                                           region(14, {{13, {450, 1000}}, {7, {550, 1000}}})}};
    }
};

/// Loads the same picture from every path, if there is one.
struct FakeImageLoader final : ImageLoader {
    Expected<std::shared_ptr<PixelBuffer>> loadImage(const std::string& path) const override {
        if (!picture) return Error{path + ": no such file"};
        return picture;
    }
    std::shared_ptr<PixelBuffer> picture = PixelBuffer::create(300, 400, kPixelFormat32BGRA);
};

/// A motion feed that the test speaks for.
struct FakeMotionManager final : MotionManager {
    void setDeviceMotionUpdateInterval(std::chrono::nanoseconds value) override { interval = value; }
    void startDeviceMotionUpdates(std::shared_ptr<Queue>, Handler handler) override {
        mutex_.set(handler_, std::move(handler));
        duringCalls();
    }
    void stopDeviceMotionUpdates() override { startDeviceMotionUpdates(nullptr, nullptr); }

    /// Hands a reading to the handler, if one is set.
    void rotate(RotationRate rate) {
        if (const auto handler = mutex_.get(handler_)) handler({.rotationRate = rate}, std::nullopt);
    }
    bool isRunning() const { return mutex_.get(handler_) != nullptr; }

    std::function<void()> duringCalls = [] {};
    std::chrono::nanoseconds interval{};

private:
    mutable MemberMutex mutex_;
    Handler handler_;  // guarded by mutex_
};

/// An analyzer without a delegate, once it is made.
struct ManualAnalyzer {
    Platform platform() {
        Platform platform = makePortablePlatform();
        platform.serviceLevel = serviceLevel;
        platform.device = device;
        platform.screen = std::make_shared<FakeScreen>(screen);
        platform.imageCodec = codec;
        platform.imageLoader = loader;
        platform.mainQueue = mainQueue;
        platform.globalQueue = globalQueue;
        platform.makeSerialQueue = [this](const std::string& label) {
            return label == analysisQueue->label() ? analysisQueue : std::make_shared<ManualQueue>(label);
        };
        platform.makeSequenceRequestHandler = [this] { return vision; };
        platform.makeFaceDetector = [this] { return smiles; };
        platform.makeMotionManager = [this] { return motion; };
        return platform;
    }
    void makeAnalyzer(const Platform& ports) {
        analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(parameters, ports);
    }

    int serviceLevel = Platform::kFullServiceLevel;
    Size screen{1000, 1700};
    const std::shared_ptr<FakeDevice> device = std::make_shared<FakeDevice>();
    const std::shared_ptr<FakeSequenceRequestHandler> vision = std::make_shared<FakeSequenceRequestHandler>();
    const std::shared_ptr<FakeFaceDetector> smiles = std::make_shared<FakeFaceDetector>();
    const std::shared_ptr<FakeImageCodec> codec = std::make_shared<FakeImageCodec>();
    const std::shared_ptr<FakeImageLoader> loader = std::make_shared<FakeImageLoader>();
    const std::shared_ptr<FakeMotionManager> motion = std::make_shared<FakeMotionManager>();
    const std::shared_ptr<ManualQueue> mainQueue = std::make_shared<ManualQueue>("main");
    const std::shared_ptr<ManualQueue> globalQueue = std::make_shared<ManualQueue>("global");
    const std::shared_ptr<ManualQueue> analysisQueue =
        std::make_shared<ManualQueue>("com.selvio.facialcapture.frameAnalysisQueue");
    const std::shared_ptr<SelvioFacialCaptureParameters> parameters = std::make_shared<SelvioFacialCaptureParameters>();
    std::shared_ptr<SelvioFacialCaptureAnalyzer> analyzer;
};

inline std::shared_ptr<SampleBuffer> blankFrame() {
    return SampleBuffer::makeVideo(PixelBuffer::create(100, 170, kPixelFormat32BGRA));
}

}  // namespace selvio
