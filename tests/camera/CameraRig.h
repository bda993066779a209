// A camera on fakes: every queue runs by hand.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <gmock/gmock.h>

#include <map>

#include "support/FakeAssetWriter.h"
#include "support/FakeCapture.h"
#include "support/FakeDevice.h"
#include "support/FakeFileManager.h"
#include "support/FakeView.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ManualQueue.h"

namespace selvio {

using Camera = SelvioFacialCaptureCamera;
using Strings = std::vector<std::string>;

struct CameraRig {
    CameraRig() {
        platform.clock = clock;
        platform.mainQueue = main;
        platform.makeSerialQueue = [this](const std::string& label) { return queues[label] = std::make_shared<ManualQueue>(label); };
        platform.device = std::make_shared<FakeDevice>();
        platform.screen = std::make_shared<FakeScreen>(Size{300.0, 600.0});
        platform.captureSystem = std::make_shared<FakeCaptureSystem>(capture);
        platform.assetWriters = std::make_shared<FakeAssetWriterFactory>(writing);
        platform.fileManager = files;
        platform.makeView = [this] { return view; };
        platform.notificationCenter = notifications;
    }
    ~CameraRig() { run(); }

    /// Runs every queue until all are idle.
    void run() {
        bool any = true;
        while (any) {
            any = main->runNext();
            for (const auto& [label, queue] : queues) any = queue->runNext() || any;
        }
    }
    void make() { camera = Camera::init(platform); }
    void configure() {
        camera->setDelegate(delegate);
        run();
    }
    /// A camera that runs and records with sound.
    void makeRecording(SelvioFacialCaptureVideoQuality quality = 10) {
        make();
        camera->parameters()->setVideoQuality(quality);
        camera->parameters()->setRecordVideo(true);
        camera->parameters()->setRecordAudio(true);
        configure();
        camera->start();
        run();
        (void)capture->calls.take();
    }
    [[nodiscard]] std::shared_ptr<FakeVideoDataOutput> video() const {
        return std::dynamic_pointer_cast<FakeVideoDataOutput>(camera->videoDataOutput());
    }
    [[nodiscard]] std::shared_ptr<FakeAudioDataOutput> audio() const {
        return std::dynamic_pointer_cast<FakeAudioDataOutput>(camera->audioDataOutput());
    }

    LogCapture log;
    const std::shared_ptr<FakeCaptureScript> capture = std::make_shared<FakeCaptureScript>();
    const std::shared_ptr<FakeWriterScript> writing = std::make_shared<FakeWriterScript>();
    const std::shared_ptr<FakeFileManager> files = std::make_shared<FakeFileManager>();
    const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    const std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>("main");
    std::map<std::string, std::shared_ptr<ManualQueue>> queues;
    const std::shared_ptr<FakePreviewLayer> layer = std::make_shared<FakePreviewLayer>(std::make_shared<FakeConnection>(capture, "preview"));
    const std::shared_ptr<FakeView> view = std::make_shared<FakeView>(layer);
    const std::shared_ptr<NotificationCenter> notifications = std::make_shared<NotificationCenter>();
    Platform platform;

    Strings events;  ///< what the delegate was told, and on which queue
    const std::shared_ptr<SelvioFacialCaptureCameraDelegate> delegate = makeDelegate();
    std::shared_ptr<Camera> camera;

private:
    void tell(const std::string& event, const std::string& queue) {
        const auto found = queues.find(queue);
        events.push_back(event + (found != queues.end() && found->second->isCurrent() ? "" : " off its queue"));
    }
    std::shared_ptr<SelvioFacialCaptureCameraDelegate> makeDelegate() {
        const std::string prefix = kQueueLabelPrefix;
        auto made = std::make_shared<SelvioFacialCaptureCameraDelegate>();
        made->didFinishConfiguringSession = [this, prefix] { tell("configured", prefix + ".avCaptureSessionQueue"); };
        made->didReceiveSampleBuffer = [this, prefix](const auto&) { tell("frame", prefix + ".videoDataOutputQueue"); };
        made->didDropSampleBuffer = [this, prefix](const auto&) { tell("drop", prefix + ".videoDataOutputQueue"); };
        made->didDecodeBarcode = [this](const std::string& text) { tell("barcode " + text, "MetaDataOutputQueue"); };
        made->didFinishRecordingVideo = [this](const std::vector<std::uint8_t>& data) {
            events.push_back("recording of " + std::to_string(data.size()));
        };
        return made;
    }
};

inline std::shared_ptr<SampleBuffer> frame(int width = 4, int height = 2, bool ready = true) {
    return SampleBuffer::makeVideo(PixelBuffer::create(width, height, kPixelFormat32BGRA), {}, ready);
}

}  // namespace selvio
