// A camera on fakes: every queue runs by hand.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <gmock/gmock.h>

#include <map>

#include "support/FakeCapture.h"
#include "support/FakeDevice.h"
#include "support/FakeFileManager.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ManualQueue.h"

namespace selvio {

using Camera = SelvioFacialCaptureCamera;
using Delegate = SelvioFacialCaptureCameraDelegate;
using Strings = std::vector<std::string>;

inline const std::string kMain = "main", kSession = "com.selvio.facialcapture.avCaptureSessionQueue",
                         kOutput = "com.selvio.facialcapture.videoDataOutputQueue", kCodes = "MetaDataOutputQueue";

struct FakePreviewLayer final : PlainPreviewLayer, FakePart {
    using FakePart::FakePart;
    void setVideoGravity(const std::string& gravity) override { say("gravity", gravity); }
    std::shared_ptr<CaptureConnection> connection() const override {
        return std::make_shared<FakeConnection>(script, "preview");
    }
    MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        return {object.type, "transformed", object.bounds};
    }
};

struct CameraRig {
    CameraRig() {
        const auto queue = [this](const std::string& label) {
            return queues[label] = std::make_shared<ManualQueue>(label);
        };
        platform.clock = clock;
        platform.mainQueue = queue(kMain);
        platform.makeSerialQueue = queue;
        platform.device = std::make_shared<FakeDevice>();
        platform.screen = std::make_shared<FakeScreen>(Size{300.0, 600.0});
        platform.captureSystem = system;
        platform.assetWriters = std::make_shared<FakeAssetWriterFactory>(capture);
        platform.fileManager = files;
        platform.makeView = [this] {
            auto view = std::make_shared<PlainView>(std::make_shared<FakePreviewLayer>(capture));
            view->setFrame({1.0, 2.0, 3.0, 4.0});
            return view;
        };
        platform.notificationCenter = std::make_shared<NotificationCenter>();
        const auto tell = [this](const std::string& event, const std::string& queue) {
            capture->calls.add("told", event + (queues[queue]->isCurrent() ? "" : " off its queue"));
        };
        delegate->didFinishConfiguringSession = [=] { tell("configured", kSession); };
        delegate->didReceiveSampleBuffer = [=](const auto&) { tell("frame", kOutput); };
        delegate->didDropSampleBuffer = [=](const auto&) { tell("drop", kOutput); };
        delegate->didDecodeBarcode = [=](const std::string& text) { tell("barcode " + text, kCodes); };
        delegate->didFinishRecordingVideo = [this](const auto& data) {
            capture->calls.add("told recording of", data.size());
        };
    }
    ~CameraRig() {
        run();
        // A writer that is never finished holds what waits for its end, and through that itself.
        for (const auto& made : capture->writers)
            if (const auto writer = made.lock()) writer->finish(AssetWriterStatus::Cancelled);
        run();
    }

    /// Runs every queue until all are idle.
    void run() {
        for (bool any = true; any;) {
            any = false;
            for (const auto& [label, queue] : queues) any = queue->runNext() || any;
        }
    }
    void make() { camera = Camera::init(platform); }
    void configure() {
        camera->setDelegate(delegate);
        run();
    }

    const std::shared_ptr<FakeCaptureScript> capture = std::make_shared<FakeCaptureScript>();
    LogCapture log{capture->calls};  ///< the calls of all fakes, the messages and what the delegate was told
    const std::shared_ptr<FakeCaptureSystem> system = std::make_shared<FakeCaptureSystem>(capture);
    const std::shared_ptr<FakeFileManager> files = std::make_shared<FakeFileManager>();
    const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::map<std::string, std::shared_ptr<ManualQueue>> queues;
    Platform platform;
    const std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
    std::shared_ptr<Camera> camera;
};

inline std::shared_ptr<SampleBuffer> frame(int width = 4, bool ready = true) {
    return SampleBuffer::makeVideo(PixelBuffer::create(width, 2, kPixelFormat32BGRA), {}, ready);
}

}  // namespace selvio
