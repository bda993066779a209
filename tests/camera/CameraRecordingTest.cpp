#include "CameraRig.h"

namespace selvio {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::shared_ptr<FakeAssetWriter> writerOf(const CameraRig& rig) {
    return std::dynamic_pointer_cast<FakeAssetWriter>(rig.camera->assetWriter());
}

TEST(CameraRecording, callsInOrderForAWholeRecording) {
    CameraRig rig;
    rig.files->put("selvio_left over.mp4");
    rig.capture->codec = kVideoCodecTypeHEVC;
    rig.platform.serviceLevel = 11;
    rig.platform.screen = std::make_shared<FakeScreen>(Size{}, InterfaceOrientation::LandscapeLeft);
    rig.makeRecording(55);
    EXPECT_THAT(rig.files->names(), IsEmpty());
    const std::string path = rig.camera->url().value().string();
    EXPECT_EQ(rig.camera->videoRecordingUrl(), path);
    EXPECT_EQ(path.rfind("/documents/selvio_20", 0), 0u) << path;
    EXPECT_THAT(rig.writing->calls.take(),
                ElementsAre("make MPEG4 " + path, "video HEVC 1280x720 at 3250000", "video real time", "add video",
                            "audio 44100 at 128000", "audio real time", "add audio", "start", "from 42 s"));
    rig.video()->deliver(frame());
    rig.audio()->deliver(frame());
    rig.run();
    rig.camera->stop();
    rig.video()->deliver(frame());
    rig.run();
    EXPECT_THAT(rig.writing->calls.take(),
                ElementsAre("video sample", "audio sample", "video finished", "audio finished", "finish"));
    EXPECT_THAT(rig.events, ElementsAre("frame", "frame")) << "the delegate gets every frame, recorded or not";
    EXPECT_FALSE(rig.camera->shouldRecord());

    rig.files->put(std::filesystem::path(path).filename().string(), {1, 2, 3});
    writerOf(rig)->finish(AssetWriterStatus::Completed);
    EXPECT_EQ(rig.events.back(), "recording of 3");
    EXPECT_THAT(rig.files->names(), IsEmpty());

    rig.camera->parameters()->setRecordAudio(false);
    rig.camera->start();
    rig.run();
    EXPECT_TRUE(rig.camera->shouldRecord());
    EXPECT_FALSE(rig.camera->writerAudioInput()) << "without the sound track of the file before";

    rig.camera->stop();
    writerOf(rig)->finish(AssetWriterStatus::Failed);  // before the queue gets to the stop
    rig.run();
    writerOf(rig)->finish(AssetWriterStatus::Failed);
    EXPECT_THAT(rig.log.take(), ElementsAre("*** AVAssetWriterStatusFailed"));
}

TEST(CameraRecording, aRequestedStopOutlivesTheCameraAndAStartDoesNot) {
    CameraRig rig;
    rig.makeRecording();
    (void)rig.writing->calls.take();
    const auto writer = writerOf(rig);
    rig.camera->stopRecording();
    rig.camera->stopRecording();  // asks no second time
    rig.camera->startRecording();
    rig.camera->shutdown();
    const std::weak_ptr<CaptureDeviceInput> input = rig.camera->videoInput();
    rig.camera.reset();
    rig.run();
    EXPECT_TRUE(input.expired()) << "a finishing writer keeps nothing of the camera";
    writer->finish(AssetWriterStatus::Failed);
    EXPECT_THAT(rig.writing->calls.take(), ElementsAre("video finished", "audio finished", "finish"));
}

}  // namespace
}  // namespace selvio
