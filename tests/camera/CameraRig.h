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
        platform.makeSerialQueue = [this](const std::string& label) {
            return queues[label] = std::make_shared<ManualQueue>(label);
        };
        platform.device = std::make_shared<FakeDevice>();
        platform.screen = std::make_shared<FakeScreen>(Size{300.0, 600.0});
        platform.captureSystem = std::make_shared<FakeCaptureSystem>(capture);
        platform.assetWriters = std::make_shared<FakeAssetWriterFactory>(writing);
        platform.fileManager = files;
        platform.makeView = [this] { return view; };
        platform.notificationCenter = notifications;
    }
    ~CameraRig() {
        run();
        // A writer that is never finished holds what waits for its end, and through that itself.
        for (const auto& made : writing->made) {
            if (const auto writer = made.lock()) writer->finish(AssetWriterStatus::Cancelled);
        }
        run();
    }

    /// Runs every queue until all are idle.
    void run() {
        for (bool any = true; any;) {
            any = main->runNext();
            for (const auto& [label, queue] : queues) any = queue->runNext() || any;
        }
    }
    void runSessionQueue() { queues[camera->videoQueue()->label()]->runAll(); }
    void make() { camera = Camera::init(platform); }
    /// The calls and events of the configuration are forgotten.
    void makeConfigured(bool recordAudio = false, bool detectPDF417 = false) {
        make();
        camera->parameters()->setRecordAudio(recordAudio);
        camera->setDetectPDF417(detectPDF417);
        configure();
        (void)capture->calls.take();
        events.clear();
    }
    void configure() {
        camera->setDelegate(delegate);
        run();
    }
    /// A camera that runs and records with sound.
    void makeRecording(SelvioFacialCaptureVideoQuality quality = 10) {
        makeConfigured(true);
        camera->parameters()->setVideoQuality(quality);
        camera->parameters()->setRecordVideo(true);
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
    const std::shared_ptr<FakePreviewLayer> layer =
        std::make_shared<FakePreviewLayer>(std::make_shared<FakeConnection>(capture, "preview"));
    std::shared_ptr<FakeView> view = std::make_shared<FakeView>(layer);
    const std::shared_ptr<NotificationCenter> notifications = std::make_shared<NotificationCenter>();
    Platform platform;

    Strings events;  ///< what the delegate was told, and on which queue
    const std::shared_ptr<SelvioFacialCaptureCameraDelegate> delegate = makeDelegate();
    std::shared_ptr<Camera> camera;

private:
    void tell(const std::string& event, std::string_view queue) {
        const auto runs = [queue](const auto& entry) {
            return entry.first.ends_with(queue) && entry.second->isCurrent();
        };
        events.push_back(event + (std::any_of(queues.begin(), queues.end(), runs) ? "" : " off its queue"));
    }
    std::shared_ptr<SelvioFacialCaptureCameraDelegate> makeDelegate() {
        auto made = std::make_shared<SelvioFacialCaptureCameraDelegate>();
        made->didFinishConfiguringSession = [this] { tell("configured", ".avCaptureSessionQueue"); };
        made->didReceiveSampleBuffer = [this](const auto&) { tell("frame", ".videoDataOutputQueue"); };
        made->didDropSampleBuffer = [this](const auto&) { tell("drop", ".videoDataOutputQueue"); };
        made->didDecodeBarcode = [this](const std::string& text) { tell("barcode " + text, "MetaDataOutputQueue"); };
        made->didFinishRecordingVideo = [this](const auto& data) {
            events.push_back("recording of " + std::to_string(data.size()));
        };
        return made;
    }
};

inline std::shared_ptr<SampleBuffer> frame(int width = 4, int height = 2, bool ready = true) {
    return SampleBuffer::makeVideo(PixelBuffer::create(width, height, kPixelFormat32BGRA), {}, ready);
}

}  // namespace selvio
