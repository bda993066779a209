// The whole camera over the simulated devices, with real queues, real files and the real MP4 writer.
#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Files.h>
#include <SelvioFacialCapture/linux/Recording.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>
#include <gmock/gmock.h>

#include <atomic>
#include <fstream>

#include "simulated/SimulatedSupport.h"
#include "support/ComesTrue.h"
#include "support/FakeDevice.h"
#include "support/LogCapture.h"
#include "support/MediaProbe.h"
#include "support/Resources.h"

namespace {

using namespace selvio;

using testing::HasSubstr;
namespace fs = std::filesystem;

struct Rig {
    explicit Rig(const std::string& keyFrames, std::int64_t orientation = 1,
                 const SimulatedCaptureOptions& options = {SimulatedPacing::Manual}) {
        Platform platform = makePortablePlatform();
        platform.mainQueue = main;
        platform.device = std::make_shared<FakeDevice>();
        platform.screen = std::make_shared<FakeScreen>(Size{}, static_cast<InterfaceOrientation>(orientation));
        platform.fileManager = std::make_shared<LinuxFileManager>(documents);
        // Every other time with the encoder for sound that comes last.
        const std::vector<std::string> all, last{"fdkaacenc", "avenc_aac"};
        platform.assetWriters = makeGstAssetWriterFactory({.disabledElements = orientation % 2 == 0 ? last : all});
        system = useSimulatedCamera(platform, spotFrames(keyFrames), options);
        const bool isManual = options.pacing == SimulatedPacing::Manual;
        camera = SelvioFacialCaptureCamera::initWithPreset(
            isManual ? kCaptureSessionPreset1280x720 : kCaptureSessionPreset640x480, 0, CaptureDevicePosition::Front,
            static_cast<VideoOrientation>(orientation), {}, platform);
        camera->setAnalyzeRGBVideo(false);
        camera->parameters()->setRecordVideo(true);
        camera->parameters()->setRecordAudio(true);
        delegate->didFinishConfiguringSession = [] {};
        delegate->didReceiveSampleBuffer = [this](const auto&) { ++frames; };
        delegate->didFinishRecordingVideo = [this](const std::vector<std::uint8_t>& data) {
            directory.write("recording.mp4", data);
            ++recordings;
        };
        camera->setDelegate(delegate);
        drain(camera->videoQueue());
        if (isManual) system->scene()->setTime({});  // stands still until the first frame
    }
    ~Rig() {
        camera->stop();
        camera->discardRecording();  // a test that failed may have left one
        camera->shutdown();
        for (const auto& queue : {camera->videoQueue(), camera->videoOutputQueue(), std::shared_ptr<Queue>(main)})
            drain(queue);
    }
    static void drain(const std::shared_ptr<Queue>& queue) { dynamic_cast<SerialQueue&>(*queue).drain(); }
    /// With the next frames, each once the recording has room for it.
    void start(int count) {
        camera->start();
        drain(camera->videoQueue());
        step(count);
    }
    void step(int count) {
        for (; count > 0; --count) {
            while (camera->assetWriter() && camera->assetWriter()->status() == AssetWriterStatus::Writing &&
                   !camera->writerVideoInput()->isReadyForMoreMediaData())
                std::this_thread::yield();
            system->deliverFrameAt(next++ * std::chrono::nanoseconds(33'333'333));
            drain(camera->videoOutputQueue());
        }
    }
    [[nodiscard]] bool receives(const std::function<void()>& stop) {
        const int before = recordings;
        stop();
        return comesTrue([&] { return recordings > before; });
    }
    [[nodiscard]] bool noneLeft() const {
        const fs::recursive_directory_iterator all(documents);
        return std::none_of(begin(all), end(all), [](const auto& entry) { return entry.is_regular_file(); });
    }

    const TemporaryDirectory directory;
    const fs::path documents = directory.path() / "Documents";
    const fs::path file = directory.path() / "recording.mp4";
    const std::shared_ptr<SerialQueue> main = std::make_shared<SerialQueue>("main");
    const std::shared_ptr<SelvioFacialCaptureCameraDelegate> delegate =
        std::make_shared<SelvioFacialCaptureCameraDelegate>();
    std::shared_ptr<SimulatedCaptureSystem> system;
    std::shared_ptr<SelvioFacialCaptureCamera> camera;
    std::atomic<int> frames{0}, recordings{0};
    int next = 0;  ///< frame
};

TEST(Recording, IsPlayableInEveryOrientation) {
    for (const std::int64_t orientation : {1, 2, 3, 4}) {
        SCOPED_TRACE(orientation);
        // It becomes light at 1 s, which is when the microphone is joined again.
        Rig rig(R"({"at": 0, "hold": 0.99, "visible": false, "light": 0}, {"at": 1, "light": 4})", orientation);
        const auto microphone = rig.camera->audioInput();
        rig.camera->session()->removeInput(microphone);
        rig.start(30);
        rig.camera->session()->addInput(microphone);
        rig.step(30);
        ASSERT_TRUE(rig.receives([&] { rig.camera->stop(); }));
        EXPECT_TRUE(rig.noneLeft());
        EXPECT_EQ(rig.frames, 60);
        EXPECT_EQ(streamOf(rig.file, "v", "codec_name,width,height,nb_read_frames"),
                  orientation <= 2 ? "h264,720,1280,60" : "h264,1280,720,60");
        EXPECT_EQ(streamOf(rig.file, "a", "codec_name"), "aac");
        EXPECT_NEAR(secondsOf(rig.file, "v"), 2.0, 0.04);
        EXPECT_NEAR(secondsOf(rig.file, "a"), 2.0, 0.04);
        const auto [white, tone] = onsets(rig.file);
        EXPECT_NEAR(white, 1.0, 0.01);
        EXPECT_NEAR(tone, 45 * 1024 / 48000.0, 0.04) << "the first block that is not over at the last dark frame";
    }
}

// What befalls a recording is logged and leaves no half of a file; the capture goes on, and once the cause has gone the
// next recording succeeds.
TEST(Recording, FaultsSpareTheCapture) {
    LogCapture log;
    Rig rig(R"({"at": 0, "visible": false, "noise": 8})");
    std::ofstream(rig.documents) << "a file";
    for (const char* const reason : {"could not create", "could not finish the recording"}) {
        SCOPED_TRACE(reason);
        rig.start(5);
        rig.camera->cleanupBrokenVideos();  // deletes the second one
        rig.frames = 0;
        rig.step(5);
        EXPECT_EQ(rig.frames, 5);
        rig.camera->stopRecording();
        std::string lines;
        EXPECT_TRUE(comesTrue([&] {
            for (const auto& line : log.take()) lines += line + "\n";
            return lines.find("***") != std::string::npos;
        }));
        EXPECT_THAT(lines, HasSubstr(reason));
        EXPECT_EQ(rig.recordings, 0);
        rig.camera->stop();
        if (fs::is_regular_file(rig.documents)) fs::remove(rig.documents);
    }
    // The camera's end is no fault of the recording.
    for (const bool isUnplugged : {true, false}) {
        rig.start(5);
        rig.system->setFaults({.deviceLost = isUnplugged});
        if (isUnplugged) rig.step(1);
        EXPECT_TRUE(rig.receives([&] { rig.camera->stopRecording(); }));
        rig.camera->stop();
        EXPECT_EQ(streamOf(rig.file, "v", "nb_read_frames"), "5");
        EXPECT_TRUE(rig.noneLeft());
        rig.system->setFaults({});
    }
}

TEST(Recording, ManyStartsAndStopsLeaveNothingBehind) {
    Rig rig(kSteady, 1, {.frameRate = 240});
    const auto cycle = [&](int times, bool record) {
        rig.camera->parameters()->setRecordVideo(record);
        for (; times > 0; --times) {
            // A recording begins after some frames on a busy machine, and has no room for others at first.
            const int enough = rig.frames + (record ? 10 : 1);
            rig.start(0);
            ASSERT_TRUE(comesTrue([&] { return rig.frames >= enough; }));
            const int before = rig.recordings;
            rig.camera->stop();
            ASSERT_TRUE(comesTrue([&] { return !record || rig.recordings > before; }));
        }
        rig.camera->discardRecording();  // the last writer goes
        Rig::drain(rig.camera->videoOutputQueue());
    };
    cycle(5, true);  // GStreamer and the allocator keep something for the next time
    cycle(50, false);
    const auto before = Resources::now();
    cycle(300, false);
    EXPECT_LT(Resources::now().blocks - before.blocks, 150) << "less than one block every second cycle";
    cycle(20, true);
    // A writer's own thread may still be at its end.
    EXPECT_TRUE(comesTrue([&] { return Resources::now().threads <= before.threads + 6; }));
    EXPECT_TRUE(comesTrue([&] { return Resources::now().descriptors <= before.descriptors; }));
    EXPECT_TRUE(rig.noneLeft());
}

}  // namespace
