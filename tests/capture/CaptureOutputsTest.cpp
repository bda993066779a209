#include <SelvioFacialCapture/base/SerialQueue.h>
#include <gmock/gmock.h>

#include <thread>

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

class VideoOutput final : public QueuedVideoOutput {
public:
    explicit VideoOutput(std::shared_ptr<const void> system)
        : QueuedVideoOutput(std::move(system), {kPixelFormat32BGRA, kPixelFormat420v}) {}
    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string&) const override { return {}; }
};

class Session final : public CaptureSessionBase {
public:
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

std::shared_ptr<SampleBuffer> frameAt(std::chrono::milliseconds time) {
    return SampleBuffer::makeVideo(PixelBuffer::create(2, 2, kPixelFormat32BGRA), {time, std::nullopt});
}

std::vector<std::chrono::nanoseconds> timesOf(const std::vector<SampleTiming>& timings) {
    std::vector<std::chrono::nanoseconds> times;
    for (const auto& timing : timings) times.push_back(*timing.presentationTime);
    return times;
}

// One capture system with a session that joins everything.
struct Rig {
    Rig() {
        session->addInput(inputOf("camera"));
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
    const std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    const std::shared_ptr<CaptureProbe> probe = std::make_shared<CaptureProbe>(queue);
    std::shared_ptr<Session> session = std::make_shared<Session>(system);
    const std::shared_ptr<VideoOutput> video = std::make_shared<VideoOutput>(system);
    const std::shared_ptr<QueuedAudioOutput> audio = std::make_shared<QueuedAudioOutput>(system);
    const std::shared_ptr<QueuedMetadataOutput> metadata = std::make_shared<QueuedMetadataOutput>(system);
};

TEST(CaptureOutputs, ALateFrameGivesWayToTheNewestWithANotice) {
    Rig rig;
    auto first = frameAt(0ms);
    const std::weak_ptr<SampleBuffer> late = first;
    rig.video->deliver(std::move(first));
    for (const auto time : {1ms, 2ms, 3ms}) rig.video->deliver(frameAt(time));
    EXPECT_TRUE(late.expired()) << "its memory is wanted again";
    rig.queue->runAll();
    EXPECT_THAT(timesOf(rig.probe->frames_), ElementsAre(3ms));
    EXPECT_THAT(timesOf(rig.probe->drops_), ElementsAre(0ms, 1ms, 2ms));

    rig.video->setAlwaysDiscardsLateVideoFrames(false);
    for (int i = 10; i < 20; ++i) rig.video->deliver(frameAt(std::chrono::milliseconds(i)));
    rig.queue->runAll();
    EXPECT_THAT(timesOf(rig.probe->frames_), ElementsAre(3ms, 10ms, 11ms, 12ms, 13ms, 14ms, 15ms, 16ms, 17ms));
    EXPECT_THAT(timesOf(rig.probe->drops_), ElementsAre(0ms, 1ms, 2ms, 18ms, 19ms));

    // Behind a delegate that does not return the queue stays short.
    rig.video->setAlwaysDiscardsLateVideoFrames(true);
    for (int i = 0; i < 5000; ++i) {
        rig.video->deliver(frameAt(1s));
        rig.audio->deliver(SampleBuffer::makeAudio({}, {}));
    }
    EXPECT_LT(rig.queue->size(), 1200u);
    rig.queue->runAll();
    EXPECT_THAT(rig.probe->frames_, SizeIs(10));
}

TEST(CaptureOutputs, AReplacedDelegateIsToldNothingMore) {
    Rig rig;
    const auto otherQueue = std::make_shared<ManualQueue>();
    const auto other = std::make_shared<CaptureProbe>(otherQueue);
    rig.video->deliver(frameAt(1ms));
    rig.video->deliver(frameAt(2ms));
    rig.video->setSampleBufferDelegate(other, otherQueue);
    rig.video->deliver(frameAt(3ms));
    rig.queue->runAll();
    otherQueue->runAll();
    EXPECT_THAT(rig.probe->frames_, SizeIs(0));
    EXPECT_THAT(rig.probe->drops_, SizeIs(0));
    EXPECT_THAT(timesOf(other->frames_), ElementsAre(3ms)) << "a frame for another delegate does not count as late";

    // From its own delivery: must not wait for itself.
    other->onFrame = [&](const auto&) { rig.video->setSampleBufferDelegate({}, nullptr); };
    for (const auto time : {4ms, 5ms, 6ms}) {
        rig.video->deliver(frameAt(time));
        otherQueue->runNext();
    }
    otherQueue->runAll();
    EXPECT_THAT(timesOf(other->frames_), ElementsAre(3ms, 4ms));

    rig.video->setSampleBufferDelegate(std::make_shared<CaptureProbe>(otherQueue), otherQueue);
    EXPECT_FALSE(rig.video->isDelivering()) << "the delegate has gone";
    rig.video->deliver(frameAt(7ms));
    EXPECT_EQ(otherQueue->size(), 0u);
}

TEST(CaptureOutputs, SoundComesInOrderAndCodesOneAtATimeWhenLookedFor) {
    Rig rig;
    for (const auto time : {1ms, 2ms}) rig.audio->deliver(SampleBuffer::makeAudio({}, {time, std::nullopt}));
    EXPECT_FALSE(rig.metadata->isSearching());
    rig.metadata->setMetadataObjectTypes({"QR"});
    EXPECT_FALSE(rig.metadata->isSearching());
    rig.metadata->setMetadataObjectTypes({"QR", kMetadataObjectTypePDF417Code});
    EXPECT_TRUE(rig.metadata->isSearching());
    for (const char* const text : {"first", "second"}) rig.metadata->deliver({{"PDF417", text, {}}});
    rig.queue->runAll();
    rig.metadata->deliver({{"PDF417", "third", {}}});
    rig.queue->runAll();
    EXPECT_THAT(timesOf(rig.probe->sounds_), ElementsAre(1ms, 2ms));
    ASSERT_THAT(rig.probe->objects_, SizeIs(2));
    EXPECT_EQ(rig.probe->objects_[1].stringValue, "third");
}

TEST(CaptureOutputs, FramesAndNoticesAddUpWhileTheQueueRuns) {
    Rig rig;
    const auto queue = std::make_shared<SerialQueue>("frames");
    const auto probe = std::make_shared<CaptureProbe>(queue);
    rig.video->setSampleBufferDelegate(probe, queue);
    std::jthread turner([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            for (const auto& connection : rig.video->connections())
                connection->setVideoOrientation(VideoOrientation::Portrait);
            rig.audio->setSampleBufferDelegate({}, nullptr);
        }
    });
    for (int i = 0; i < 3000; ++i) {
        rig.video->deliver(frameAt(std::chrono::milliseconds(i)));
        if (i % 30 == 29) queue->drain();
    }
    queue->drain();
    EXPECT_EQ(probe->frames_.size() + probe->drops_.size(), 3000u);
    EXPECT_TRUE(std::ranges::is_sorted(timesOf(probe->frames_)));
    EXPECT_EQ(timesOf(probe->frames_).back(), 2999ms);
}

TEST(CaptureSessionBase, JoinsOneOfEachKindOfItsOwnSystem) {
    Rig rig;
    LogCapture log;
    EXPECT_EQ(rig.session->changes, 5);
    const auto elsewhere = std::make_shared<int>();
    const auto foreign = std::make_shared<DeviceInput>(rig.inputOf("camera")->device(), elsewhere);
    Session empty(rig.system);
    EXPECT_FALSE(empty.canAddInput(*foreign));
    EXPECT_FALSE(empty.canAddInput(FakeCaptureInput(foreign->device())));
    EXPECT_FALSE(empty.canAddOutput(VideoOutput(elsewhere)));
    EXPECT_FALSE(empty.canAddOutput(*rig.video)) << "another session has it";
    EXPECT_TRUE(empty.canAddInput(*rig.inputOf("camera")));
    EXPECT_FALSE(rig.session->canAddInput(*rig.inputOf("camera"))) << "there is one";
    EXPECT_FALSE(rig.session->canAddOutput(VideoOutput(rig.system)));
    rig.session->addInput(rig.inputOf("microphone"));
    rig.session->addOutput(std::make_shared<QueuedAudioOutput>(rig.system));
    empty.addInput(nullptr);
    empty.addOutput(rig.video);
    EXPECT_THAT(log.take(), SizeIs(4));
    EXPECT_EQ(rig.session->changes + empty.changes, 5) << "nothing was added";
    EXPECT_THAT(rig.session->outputs(), ElementsAre(rig.video, rig.audio, rig.metadata));
    rig.session = nullptr;
    EXPECT_THAT(rig.video->connections(), SizeIs(0)) << "its session has gone";
    EXPECT_TRUE(empty.canAddOutput(*rig.video));
}

TEST(CaptureSessionBase, AnOutputIsConnectedWhileItsSessionHasAMatchingInput) {
    Rig rig;
    Session session(rig.system);
    const auto camera = rig.inputOf("camera");
    const auto video = std::make_shared<VideoOutput>(rig.system);
    const auto audio = std::make_shared<QueuedAudioOutput>(rig.system);
    const auto connected = [&] { return std::vector{video->connections().size(), audio->connections().size()}; };
    session.addInput(camera);
    EXPECT_THAT(connected(), ElementsAre(0, 0));
    session.addOutput(video);
    session.addOutput(audio);
    EXPECT_THAT(connected(), ElementsAre(1, 0));
    session.addInput(rig.inputOf("microphone"));
    EXPECT_THAT(connected(), ElementsAre(1, 1));
    const auto connection = video->connections().at(0);
    connection->setVideoOrientation(VideoOrientation::Portrait);
    EXPECT_EQ(connection->videoOrientation(), VideoOrientation::Portrait);
    EXPECT_FALSE(audio->connections().at(0)->isVideoOrientationSupported());
    session.removeInput(camera);
    EXPECT_THAT(connected(), ElementsAre(0, 1));
    video->setSampleBufferDelegate(rig.probe, rig.queue);
    video->deliver(frameAt(1ms));
    EXPECT_EQ(rig.queue->size(), 0u);
    session.addInput(camera);
    session.removeOutput(audio);
    EXPECT_THAT(connected(), ElementsAre(1, 0));

    LogCapture log;
    video->setPixelFormat(kPixelFormat420v);
    video->setPixelFormat(kPixelFormat32ARGB);
    EXPECT_THAT(log.take(), SizeIs(1));
    EXPECT_EQ(video->pixelFormat(), kPixelFormat420v);
    video->setPixelFormat(0);
    EXPECT_EQ(video->pixelFormat(), kPixelFormat32BGRA);
}

}  // namespace
}  // namespace selvio
