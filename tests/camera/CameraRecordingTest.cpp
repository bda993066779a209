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

// How a recording can fail to begin: the messages, and the writer that is left.
TEST(CameraRecording, failuresAtTheStart) {
    const std::string noVideo = "Can't add writerInputVideo";
    const std::string noAudio = "Can't add writerInputAudio";
    const struct {
        std::set<std::string> refused;
        Strings log;
        bool writer;
    } rows[] = {
        {{"video"}, {noVideo, noAudio}, false}, {{"audio"}, {noAudio}, true}, {{"writer"}, {noVideo, noAudio}, false}};
    for (const auto& row : rows) {
        CameraRig rig;
        rig.writing->refused = row.refused;
        rig.makeRecording();
        EXPECT_EQ(rig.log.take(), row.log);
        EXPECT_EQ(rig.camera->assetWriter() != nullptr, row.writer);
        EXPECT_TRUE(rig.camera->session()->isRunning()) << "the capture goes on";
    }
    CameraRig rig;
    rig.capture->refused = {"audio"};
    rig.makeRecording();
    EXPECT_THAT(rig.log.take(), ElementsAre("Can't add audioDataOutput"))
        << "then without sound and without a further message";
    EXPECT_TRUE(rig.camera->assetWriter() && !rig.camera->writerAudioInput());
}

// Each condition alone keeps a sample out of the file.
TEST(CameraRecording, appendingConditions) {
    const struct {
        const char* what;
        std::function<void(CameraRig&)> spoil;
        bool ready;
    } rows[] = {
        {"writer not writing", [](CameraRig& rig) { writerOf(rig)->finish(AssetWriterStatus::Failed); }, true},
        {"no input",
         [](CameraRig& rig) { rig.camera->setWriterVideoInput(nullptr), rig.camera->setWriterAudioInput(nullptr); },
         true},
        {"input not ready", [](CameraRig& rig) { rig.writing->ready = false; }, true},
        {"told not to record", [](CameraRig& rig) { rig.camera->setShouldRecord(false); }, true},
        {"data not ready", [](CameraRig&) {}, false},
    };
    for (const auto& row : rows) {
        CameraRig rig;
        rig.makeRecording();
        (void)rig.writing->calls.take();
        row.spoil(rig);
        rig.video()->deliver(frame(4, 2, row.ready));
        rig.audio()->deliver(frame(4, 2, row.ready));
        rig.run();
        EXPECT_THAT(rig.writing->calls.take(), IsEmpty()) << row.what;
        EXPECT_EQ(rig.events.back(), "frame") << row.what;
    }
}

TEST(CameraRecording, endings) {
    using Spoil = std::function<void(CameraRig&)>;
    const Spoil nothing = [](CameraRig&) {};
    const Spoil unimplemented = [](CameraRig& rig) { rig.delegate->didFinishRecordingVideo = {}; };
    const Spoil delegateTaken = [](CameraRig& rig) { rig.camera->setDelegate(nullptr); };
    const Spoil undeletable = [](CameraRig& rig) { rig.files->undeletable = {"selvio_r.mp4"}; };
    const Spoil fileGone = [](CameraRig& rig) { (void)rig.files->removeItem("/documents/selvio_r.mp4"); };
    const struct {
        AssetWriterStatus status;
        Spoil spoil;
        Strings log;
        bool delivered, fileLeft;
    } rows[] = {{AssetWriterStatus::Completed, nothing, {}, true, false},
                {AssetWriterStatus::Completed, unimplemented, {}, false, true},
                {AssetWriterStatus::Completed, delegateTaken, {}, false, true},
                {AssetWriterStatus::Completed, undeletable, {}, true, true},
                {AssetWriterStatus::Completed,
                 fileGone,
                 {"Couldn't read item at path: selvio_r.mp4\nno such file"},
                 false,
                 false},
                {AssetWriterStatus::Failed, nothing, {"*** AVAssetWriterStatusFailed"}, false, true},
                {AssetWriterStatus::Cancelled, nothing, {"*** AVAssetWriterStatusCancelled"}, false, true},
                {AssetWriterStatus::Unknown, nothing, {"*** AVAssetWriterStatus other"}, false, true}};
    for (const auto& row : rows) {
        CameraRig rig;
        rig.makeRecording();
        rig.camera->setVideoRecordingUrl("/documents/selvio_r.mp4");
        rig.camera->stopRecording();
        rig.run();
        rig.files->put("selvio_r.mp4", {1});
        row.spoil(rig);
        const auto writer = writerOf(rig);
        rig.camera->setVideoRecordingUrl("/documents/the next one");  // begun meanwhile
        rig.camera.reset();                                           // and the camera may be gone
        writer->finish(row.status);
        EXPECT_EQ(rig.log.take(), row.log);
        EXPECT_EQ(rig.events.size(), row.delivered ? 1u : 0u);
        EXPECT_EQ(rig.files->names().size(), row.fileLeft ? 1u : 0u);
    }
}

TEST(CameraRecording, aStopFindsARecordingThatIsAboutToBegin) {
    for (const bool recordVideo : {true, false}) {
        CameraRig rig;
        rig.writing->finishesAtOnce = true;
        rig.makeConfigured();
        rig.camera->parameters()->setRecordVideo(true);
        rig.camera->start();
        rig.runSessionQueue();
        rig.camera->parameters()->setRecordVideo(recordVideo);
        rig.camera->stop();
        rig.camera->parameters()->setRecordVideo(true);
        rig.run();
        EXPECT_EQ(rig.writing->calls.take().back(), recordVideo ? "finish" : "from 42 s");
    }
}

TEST(CameraRecording, discardAndStopWithoutAWriter) {
    CameraRig rig;
    rig.makeRecording();
    rig.files->put(rig.camera->videoRecordingUrl().value().filename().string());
    rig.files->put("other.mp4");
    (void)rig.writing->calls.take();
    rig.camera->discardRecording();
    rig.run();
    EXPECT_THAT(rig.writing->calls.take(), ElementsAre("video finished", "audio finished", "cancel"));
    EXPECT_TRUE(!rig.camera->assetWriter() && !rig.camera->writerVideoInput() && !rig.camera->writerAudioInput());
    EXPECT_FALSE(rig.camera->shouldRecord());
    EXPECT_THAT(rig.files->names(), ElementsAre("other.mp4"));
    rig.camera->stopRecording();
    rig.run();
    EXPECT_THAT(rig.writing->calls.take(), IsEmpty());
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

TEST(CameraRecording, cleanup) {
    const Strings before = {"selvio_a.mp4", "selvio_b.MP4", "selvio_d.mov", "selvio_e.mp4", "x_selvio_c.mp4"};
    const struct {
        bool listingFails;
        std::set<std::string> undeletable;
        Strings log, left;
    } rows[] = {
        {false,
         {before[0]},
         {"Couldn't delete item at path: selvio_a.mp4\nread-only"},
         {before[0], before[1], before[2], before[4]}},
        {true, {}, {"Couldn't get contents of Documents directory:\nno such directory"}, before},
    };
    for (const auto& row : rows) {
        CameraRig rig;
        for (const std::string& name : before) rig.files->put(name);
        rig.files->listingFails = row.listingFails;
        rig.files->undeletable = row.undeletable;
        rig.make();
        rig.camera->startRecording();  // recordVideo is off
        rig.run();
        EXPECT_EQ(rig.log.take(), row.log);
        EXPECT_EQ(rig.files->names(), row.left);
        EXPECT_FALSE(rig.camera->assetWriter());
    }
}

}  // namespace
}  // namespace selvio
