#include <thread>

#include "CameraRig.h"

namespace selvio {
namespace {

using testing::Contains;
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

// Everything that can go wrong: what is logged, what the graph then holds, and whether the delegate hears of it.
TEST(CameraConfiguration, failures) {
    using Script = FakeCaptureScript;
    const std::string focus = "Failed to set continuous autofocus and point of interest";
    const std::string noSound = "Could not add audio device input to the session";
    const struct {
        std::function<void(Script&)> fault;
        Strings log;
        std::string outputs;
        bool configured;
    } rows[] = {
        // clang-format off
        {[](Script& script) { script.noCamera = true; }, {"Could not discover a capture device"}, "", false},
        {[](Script& script) { script.failingInputs = {"camera"}; }, {"Could not create video device input: not allowed"}, "", false},
        {[](Script& script) { script.refused = {"camera"}; }, {"Could not add video device input to the session"}, "", false},
        {[](Script& script) { script.refused = {"microphone"}; }, {noSound}, "video audio metadata ", true},
        {[](Script& script) { script.failingInputs = {"microphone"}; }, {noSound, focus}, "video metadata ", false},
        {[](Script& script) { script.noMicrophone = true; }, {noSound, focus}, "video metadata ", false},
        {[](Script& script) { script.refused = {"video"}; }, {"Can't add videoDataOutput"}, "audio metadata ", true},
        {[](Script& script) { script.refused = {"audio"}; }, {"Can't add audioDataOutput"}, "video metadata ", true},
        {[](Script& script) { script.refused = {"metadata"}; }, {"Can't add metaDataOutput"}, "video audio ", true},
        {[](Script& script) { script.lockFails = true; }, {focus}, "video audio metadata ", false},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log.back() + " / " + row.outputs);
        CameraRig rig;
        row.fault(*rig.capture);
        rig.make();
        rig.camera->setDetectPDF417(true);
        rig.camera->parameters()->setRecordAudio(true);
        rig.configure();
        EXPECT_EQ(rig.log.take(), row.log);
        EXPECT_EQ(rig.camera->isConfigured(), row.configured);
        EXPECT_EQ(rig.events.size(), row.configured ? 1u : 0u);
        EXPECT_EQ(std::string(rig.camera->videoDataOutput() ? "video " : "") +
                      (rig.camera->audioDataOutput() ? "audio " : "") +
                      (rig.camera->metaDataOutput() ? "metadata " : ""),
                  row.outputs);
        const Strings calls = rig.capture->calls.take();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "commit"), 1);
        EXPECT_EQ(testing::Value(calls, Contains(testing::HasSubstr(" orientation 3"))), row.configured);
    }
}

TEST(CameraConfiguration, resolution) {
    const struct {
        std::optional<std::string> preset;
        std::int64_t format;
        Strings calls;
    } rows[] = {{std::nullopt, kPixelFormat420v, {"camera lock", "camera format width 640", "camera unlock"}},
                {std::nullopt, kPixelFormat32BGRA, {}},  // the camera has no such format
                {"High", kPixelFormat420v, {"can set High", "set High"}}};
    for (const auto& row : rows) {
        CameraRig rig;
        rig.capture->formats = {{{kPixelFormat420v, 640, 480}, 30.0}};
        rig.capture->lockFails = true;  // the format is set all the same
        rig.make();
        rig.camera->setPreset(row.preset, row.format);
        rig.camera->setDesiredResolution({640, 480});
        rig.configure();
        const Strings calls = rig.capture->calls.take();
        const auto from = std::find(calls.begin(), calls.end(), "add camera") + 1;
        EXPECT_EQ(Strings(from, std::find(from, calls.end(), "video format " + std::to_string(row.format))), row.calls);
    }
}

// Defaults make a small graph, and preview and frames part. It is the delegate that asks for the configuration and that
// wants to know.
TEST(CameraConfiguration, dependsOnTheDelegate) {
    CameraRig rig;
    rig.capture->focusSupported = false;
    rig.make();
    rig.camera->setDelegate(nullptr);
    rig.run();
    EXPECT_THAT(rig.capture->calls.take(), IsEmpty());

    const auto silent = std::make_shared<SelvioFacialCaptureCameraDelegate>();
    rig.camera->setAnalyzeRGBVideo(false);
    rig.camera->setDelegate(silent);
    rig.run();
    EXPECT_THAT(rig.capture->calls.take(),
                ElementsAre("begin", "discover BuiltInWideAngleCamera video 1", "add camera", "video format 875704438",
                            "video discards late", "video receiver on com.selvio.facialcapture.videoDataOutputQueue",
                            "add video", "commit", "camera lock", "camera unlock", "video orientation 3",
                            "preview orientation 1"));
    EXPECT_FALSE(rig.camera->isConfigured()) << "the graph is complete, but nobody was told";
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

// A configuration of a configured camera is refused, and its own input must not stand in for the first one's.
TEST(CameraConfiguration, aSecondOneLeavesNoInputBehind) {
    CameraRig rig;
    rig.makeConfigured(true);
    const auto session = std::dynamic_pointer_cast<FakeCaptureSession>(rig.camera->session());
    EXPECT_EQ(session->inputs().size(), 2u);
    rig.configure();
    EXPECT_THAT(rig.log.take(), ElementsAre("Could not add video device input to the session"));
    EXPECT_EQ(session->inputs().size(), 2u);
    rig.camera->shutdown();
    EXPECT_THAT(session->inputs(), IsEmpty());
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
