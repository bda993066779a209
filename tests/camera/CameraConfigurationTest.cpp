#include <thread>

#include "CameraRig.h"

namespace selvio {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(CameraConfiguration, callsInOrderForTheWholeGraph) {
    CameraRig rig;
    rig.capture->refused = {"640x480"};
    rig.camera = Camera::initWithPreset("640x480", kPixelFormat32BGRA, CaptureDevicePosition::Front, {}, rig.platform);
    rig.camera->setDetectPDF417(true);
    rig.camera->parameters()->setRecordAudio(true);
    rig.configure();
    EXPECT_THAT(
        rig.capture->calls.take(),
        ElementsAre("begin", "discover BuiltInWideAngleCamera video 2", "add camera", "can set 640x480",
                    "can set 1920x1080", "set 1920x1080", "add microphone", "video format 1111970369",
                    "video discards late", "video receiver on com.selvio.facialcapture.videoDataOutputQueue",
                    "add video", "audio receiver on com.selvio.facialcapture.videoDataOutputQueue", "add audio",
                    "metadata receiver on MetaDataOutputQueue", "add metadata", "metadata types PDF417", "commit",
                    "camera lock", "camera focus centre", "camera focus mode 2", "camera unlock", "video orientation 1",
                    "audio orientation 1", "metadata orientation 1", "preview orientation 1"));
    EXPECT_THAT(rig.events, ElementsAre("configured"));
    EXPECT_EQ(rig.camera->audioInput()->device(), rig.camera->audioDevice());
    EXPECT_THAT(rig.log.take(), IsEmpty());
}

TEST(CameraConfiguration, shutDownInTheMiddleLeavesNothing) {
    CameraRig rig;
    std::shared_ptr<CaptureSession> session;
    rig.platform.makeSerialQueue = [&rig, &session, make = rig.platform.makeSerialQueue](const std::string& label) {
        if (label == "MetaDataOutputQueue") session = rig.camera->session(), rig.camera->shutdown();
        return make(label);
    };
    rig.makeConfigured(true, true);
    EXPECT_TRUE(session && session->outputs().empty() && !rig.camera->metaDataOutput() && !rig.camera->isConfigured());
    EXPECT_THAT(rig.log.take(), IsEmpty());
}

// Whatever waits on the main queue, which the host need not run; and what another thread held last leaves its view to
// the main thread.
TEST(CameraConfiguration, nothingQueuedKeepsTheCamera) {
    for (const bool elsewhere : {false, true}) {
        CameraRig rig;
        rig.capture->torch = true;
        rig.make();
        const std::weak_ptr<Camera> camera = rig.camera;
        const std::weak_ptr<View> view = rig.view;
        rig.camera->setDelegate(rig.delegate);
        rig.camera->start();
        rig.runSessionQueue();
        rig.camera->turnTorchOn();
        rig.camera->start();
        rig.platform.makeView = {};
        rig.view.reset();
        if (elsewhere) {
            std::thread([last = std::move(rig.camera)]() mutable { last.reset(); }).join();
        } else {
            rig.camera.reset();
        }
        EXPECT_TRUE(camera.expired());
        EXPECT_EQ(view.expired(), !elsewhere);
        rig.run();
        EXPECT_TRUE(view.expired());
        EXPECT_THAT(rig.events, ElementsAre("configured"));
    }
}

}  // namespace
}  // namespace selvio
