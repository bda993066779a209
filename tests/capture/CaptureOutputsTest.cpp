#include <gmock/gmock.h>

#include "platform/capture/CaptureSessionBase.h"
#include "support/CaptureProbe.h"
#include "support/FakeCapture.h"
#include "support/LogCapture.h"
#include "support/ManualQueue.h"

namespace selvio {
namespace {

using namespace std::chrono_literals;
using test::CaptureProbe;
using ::testing::ElementsAre;
using ::testing::SizeIs;

struct VideoOutput final : QueuedVideoOutput {
    explicit VideoOutput(std::shared_ptr<const void> system)
        : QueuedVideoOutput(std::move(system), {kPixelFormat32BGRA, kPixelFormat420v}) {}
    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string&) const override { return {}; }
};

struct Session final : CaptureSessionBase {
    explicit Session(std::shared_ptr<const void> system) : CaptureSessionBase(std::move(system)) {}
    void beginConfiguration() override {}
    void commitConfiguration() override {}
    [[nodiscard]] bool canSetSessionPreset(const std::string&) const override { return false; }
    void setSessionPreset(const std::string&) override {}
    [[nodiscard]] bool isRunning() const override { return true; }
    void startRunning() override {}
    void stopRunning() override {}
    [[nodiscard]] std::chrono::nanoseconds masterClockTime() const override { return {}; }
    void partsChanged() override { ++changes; }

    int changes = 0;
};

using Times = std::vector<std::chrono::milliseconds>;

/// Delivers a sample of each time.
void deliver(QueuedVideoOutput& to, const Times& times) {
    for (const auto time : times)
        to.deliver(SampleBuffer::makeVideo(PixelBuffer::create(2, 2, kPixelFormat32BGRA), {time, std::nullopt}));
}

Times timesOf(const std::vector<SampleTiming>& timings) {
    Times times;
    for (const auto& timing : timings)
        times.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(*timing.presentationTime));
    return times;
}

// One capture system with a session that joins everything.
struct Rig {
    Rig() {
        session->addInput(camera);
        session->addInput(inputOf("microphone"));
        session->addOutput(video);
        session->addOutput(audio);
        session->addOutput(metadata);
        video->setSampleBufferDelegate(probe, queue);
        audio->setSampleBufferDelegate(probe, queue);
        metadata->setMetadataObjectsDelegate(probe, queue);
    }
    [[nodiscard]] std::shared_ptr<DeviceInput> inputOf(const char* name) const {
        return std::make_shared<DeviceInput>(
            std::make_shared<FakeCaptureDevice>(std::make_shared<FakeCaptureScript>(), name), system);
    }

    const std::shared_ptr<const void> system = std::make_shared<int>();
    const std::shared_ptr<DeviceInput> camera = inputOf("camera");
    const std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    const std::shared_ptr<CaptureProbe> probe = std::make_shared<CaptureProbe>(queue);
    std::shared_ptr<Session> session = std::make_shared<Session>(system);
    const std::shared_ptr<VideoOutput> video = std::make_shared<VideoOutput>(system);
    const std::shared_ptr<QueuedAudioOutput> audio = std::make_shared<QueuedAudioOutput>(system);
    const std::shared_ptr<QueuedMetadataOutput> metadata = std::make_shared<QueuedMetadataOutput>(system);
};

TEST(CaptureOutputs, ALateFrameGivesWayToTheNewestWithANotice) {
    Rig rig;
    auto first = SampleBuffer::makeVideo(PixelBuffer::create(2, 2, kPixelFormat32BGRA), {0ms, std::nullopt});
    const std::weak_ptr<SampleBuffer> late = first;
    rig.video->deliver(std::move(first));
    deliver(*rig.video, {1ms, 2ms, 3ms});
    EXPECT_TRUE(late.expired()) << "its memory is wanted again";
    rig.queue->runAll();
    EXPECT_EQ(timesOf(rig.probe->frames_), (Times{3ms}));
    EXPECT_EQ(timesOf(rig.probe->drops_), (Times{0ms, 1ms, 2ms}));

    rig.video->setAlwaysDiscardsLateVideoFrames(false);
    deliver(*rig.video, {10ms, 11ms, 12ms, 13ms, 14ms, 15ms, 16ms, 17ms, 18ms, 19ms});
    rig.queue->runAll();
    EXPECT_EQ(timesOf(rig.probe->frames_), (Times{3ms, 10ms, 11ms, 12ms, 13ms, 14ms, 15ms, 16ms, 17ms}));
    EXPECT_EQ(timesOf(rig.probe->drops_), (Times{0ms, 1ms, 2ms, 18ms, 19ms}));
}

TEST(CaptureOutputs, AReplacedDelegateIsToldNothingMore) {
    Rig rig;
    const auto otherQueue = std::make_shared<ManualQueue>();
    const auto other = std::make_shared<CaptureProbe>(otherQueue);
    deliver(*rig.video, {1ms, 2ms});
    rig.video->setSampleBufferDelegate(other, otherQueue);
    deliver(*rig.video, {3ms});
    rig.queue->runAll();
    otherQueue->runAll();
    EXPECT_TRUE(rig.probe->frames_.empty() && rig.probe->drops_.empty());
    EXPECT_EQ(timesOf(other->frames_), (Times{3ms})) << "a frame for another delegate does not count as late";

    // From its own delivery: must not wait for itself.
    other->onFrame = [&](const auto&) { rig.video->setSampleBufferDelegate({}, nullptr); };
    for (const auto time : {4ms, 5ms, 6ms}) {
        deliver(*rig.video, {time});
        otherQueue->runAll();
    }
    EXPECT_EQ(timesOf(other->frames_), (Times{3ms, 4ms}));
}

TEST(CaptureOutputs, SoundComesInOrderAndCodesOneAtATimeWhenLookedFor) {
    Rig rig;
    for (const auto time : {1ms, 2ms}) rig.audio->deliver(SampleBuffer::makeAudio({}, {time, std::nullopt}));
    EXPECT_FALSE(rig.metadata->isSearching());
    for (const std::string type : {"QR", kMetadataObjectTypePDF417Code}) {
        rig.metadata->setMetadataObjectTypes({"QR", type});
        EXPECT_EQ(rig.metadata->isSearching(), type != "QR");
    }
    for (const char* const text : {"first", "second"}) rig.metadata->deliver({{"PDF417", text, {}}});
    rig.queue->runAll();
    rig.metadata->deliver({{"PDF417", "third", {}}});
    rig.queue->runAll();
    EXPECT_EQ(timesOf(rig.probe->sounds_), (Times{1ms, 2ms}));
    ASSERT_THAT(rig.probe->objects_, SizeIs(2));
    EXPECT_EQ(rig.probe->objects_[1].stringValue, "third");
}

TEST(CaptureSessionBase, JoinsOneOfEachKindOfItsOwnSystem) {
    Rig rig;
    LogCapture log;
    EXPECT_EQ(rig.session->changes, 5);
    const auto elsewhere = std::make_shared<int>();
    const auto foreign = std::make_shared<DeviceInput>(rig.inputOf("camera")->device(), elsewhere);
    Session empty(rig.system);
    EXPECT_FALSE(empty.canAddInput(*foreign));
    EXPECT_FALSE(empty.canAddOutput(*rig.video)) << "another session has it";
    EXPECT_TRUE(empty.canAddInput(*rig.inputOf("camera")));
    EXPECT_FALSE(rig.session->canAddInput(*rig.inputOf("camera"))) << "there is one";
    empty.addInput(nullptr);
    empty.addOutput(rig.video);
    EXPECT_THAT(log.take(), SizeIs(2));
    EXPECT_EQ(empty.changes, 0) << "nothing was added";
    rig.session = nullptr;
    EXPECT_THAT(rig.video->connections(), SizeIs(0)) << "its session has gone";
    EXPECT_TRUE(empty.canAddOutput(*rig.video));
}

TEST(CaptureSessionBase, AnOutputIsConnectedWhileItsSessionHasAMatchingInput) {
    Rig rig;
    const auto connected = [&] {
        return std::vector{rig.video->connections().size(), rig.audio->connections().size()};
    };
    rig.video->connections().at(0)->setVideoOrientation(VideoOrientation::Portrait);
    EXPECT_EQ(rig.video->connections().at(0)->videoOrientation(), VideoOrientation::Portrait);
    EXPECT_FALSE(rig.audio->connections().at(0)->isVideoOrientationSupported());
    EXPECT_THAT(connected(), ElementsAre(1, 1));
    rig.session->removeInput(rig.camera);
    EXPECT_THAT(connected(), ElementsAre(0, 1));
    deliver(*rig.video, {1ms});
    EXPECT_EQ(rig.queue->size(), 0u);
    rig.session->addInput(rig.camera);
    rig.session->removeOutput(rig.audio);
    EXPECT_THAT(connected(), ElementsAre(1, 0));

    LogCapture log;
    rig.video->setPixelFormat(kPixelFormat420v);
    rig.video->setPixelFormat(kPixelFormat32ARGB);
    EXPECT_THAT(log.take(), SizeIs(1));
    EXPECT_EQ(rig.video->pixelFormat(), kPixelFormat420v);
}

}  // namespace
}  // namespace selvio
