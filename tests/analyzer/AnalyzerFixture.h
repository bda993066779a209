// An analyzer over fakes, on queues that the test runs.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <gmock/gmock.h>

#include "support/FakeDevice.h"
#include "support/FakeImageCodec.h"
#include "support/FakeMotionManager.h"
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
    Point chin{500, 1200};
    Point nose{500, 900};
    double noseLeft = 460;  ///< x of the nose's sides
    double noseRight = 540;

    /// In the layout of 17 and 14 points or that of 11 and 10.
    [[nodiscard]] FaceObservation observation(bool older = false) const {
        std::vector<Point> contour(older ? 11 : 17);
        contour[older ? 0 : 16] = left;
        contour[older ? 10 : 0] = right;
        contour[older ? 5 : 8] = chin;
        std::vector<Point> noses(9);
        noses[4] = nose;
        noses[2].x = noseLeft;
        noses[6].x = noseRight;
        std::vector<Point> lips(older ? 10 : 14);
        lips[older ? 9 : 13] = {450, 1000};
        lips[older ? 5 : 7] = {550, 1000};
        // The bounding box is the whole frame, so that points are normalized to the screen; the detector's axes are
        // swapped.
        const auto region = [](std::vector<Point> points) {
            for (Point& p : points) p = {p.y / 1700.0, p.x / 1000.0};
            return FaceLandmarkRegion{points};
        };
        return {.boundingBox = {0, 0, 1, 1}, .landmarks = FaceLandmarks{region(contour), region(noses), region(lips)}};
    }
};

/// Loads the same picture from every path but "missing.jpg".
class FakeImageLoader final : public ImageLoader {
public:
    [[nodiscard]] Expected<std::shared_ptr<PixelBuffer>> loadImage(const std::string& path) const override {
        if (path == "missing.jpg") return Error{"missing.jpg: no such file"};
        return picture_;
    }
    void setPicture(std::shared_ptr<PixelBuffer> picture) { picture_ = std::move(picture); }

private:
    std::shared_ptr<PixelBuffer> picture_ = PixelBuffer::create(300, 400, kPixelFormat32BGRA);
};

/// What an analyzer works with, but for its queues.
struct AnalyzerFakes {
    [[nodiscard]] Platform platform() const {
        Platform platform = makePortablePlatform();
        platform.device = device;
        platform.screen = std::make_shared<FakeScreen>(screen);
        platform.imageCodec = codec;
        platform.imageLoader = loader;
        platform.makeSequenceRequestHandler = [vision = vision] { return vision; };
        platform.makeFaceDetector = [smiles = smiles] { return smiles; };
        platform.makeMotionManager = [motion = motion] { return motion; };
        return platform;
    }

    const std::shared_ptr<FakeSequenceRequestHandler> vision = std::make_shared<FakeSequenceRequestHandler>();
    const std::shared_ptr<FakeFaceDetector> smiles = std::make_shared<FakeFaceDetector>();
    const std::shared_ptr<FakeImageCodec> codec = std::make_shared<FakeImageCodec>();
    const std::shared_ptr<FakeImageLoader> loader = std::make_shared<FakeImageLoader>();
    const std::shared_ptr<FakeMotionManager> motion = std::make_shared<FakeMotionManager>();
    Size screen{1000, 1700};
    const std::shared_ptr<FakeDevice> device = std::make_shared<FakeDevice>();
    const std::shared_ptr<SelvioFacialCaptureParameters> parameters = std::make_shared<SelvioFacialCaptureParameters>();
};

/// An analyzer whose queues the test runs, without a delegate.
class ManualAnalyzer : public AnalyzerFakes {
public:
    /// An analyzer anew.
    void makeAnalyzer(int serviceLevel = Platform::kFullServiceLevel) {
        Platform platform = AnalyzerFakes::platform();
        platform.serviceLevel = serviceLevel;
        platform.mainQueue = mainQueue;
        platform.globalQueue = globalQueue;
        platform.makeSerialQueue = [this](const std::string& label) {
            auto queue = std::make_shared<ManualQueue>(label);
            if (label == "com.selvio.facialcapture.frameAnalysisQueue") analysisQueue = queue;
            return queue;
        };
        analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(parameters, platform);
    }
    const std::shared_ptr<ManualQueue> mainQueue = std::make_shared<ManualQueue>("main");
    const std::shared_ptr<ManualQueue> globalQueue = std::make_shared<ManualQueue>("global");
    std::shared_ptr<ManualQueue> analysisQueue;
    std::shared_ptr<SelvioFacialCaptureAnalyzer> analyzer;
};

inline std::shared_ptr<SampleBuffer> blankFrame(int width = 100, int height = 170) {
    return SampleBuffer::makeVideo(PixelBuffer::create(width, height, kPixelFormat32BGRA));
}

}  // namespace selvio
