// What sessions and outputs of every capture system have in common, seen through the simulated one.
#include <gmock/gmock.h>

#include <algorithm>

#include "tests/simulated/SimulatedRig.h"
#include "tests/support/LogCapture.h"

namespace selvio {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Times = std::vector<std::chrono::milliseconds>;

/// A camera that runs, with two codes before it.
struct Rig : SimulatedRig {
    Rig() : SimulatedRig(std::string(kSteady) + R"(, {"at": 1, "barcode": "first"}, {"at": 2, "barcode": "second"})") {
        session->setSessionPreset(kCaptureSessionPreset640x480);
        session->startRunning();
    }
    void deliver(const Times& times) {
        for (const auto time : times) system->deliverFrameAt(time);
    }
};

Times timesOf(const std::vector<SampleTiming>& timings) {
    Times times;
    for (const auto& timing : timings)
        times.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(*timing.presentationTime - 1000s));
    return times;
}

TEST(CaptureOutputs, ALateFrameGivesWayToTheNewestWithANotice) {
    Rig rig;
    rig.deliver({0ms, 1ms, 2ms, 3ms});
    EXPECT_LE(rig.system->pixelAllocations(), 2U) << "the memory of a late frame is wanted again";
    rig.queue->runAll();
    EXPECT_EQ(timesOf(rig.probe->frames_), (Times{3ms}));
    EXPECT_EQ(timesOf(rig.probe->drops_), (Times{0ms, 1ms, 2ms}));

    rig.video->setAlwaysDiscardsLateVideoFrames(false);
    rig.deliver({10ms, 11ms, 12ms, 13ms, 14ms, 15ms, 16ms, 17ms, 18ms, 19ms});
    rig.queue->runAll();
    EXPECT_EQ(timesOf(rig.probe->frames_), (Times{3ms, 10ms, 11ms, 12ms, 13ms, 14ms, 15ms, 16ms, 17ms}));
    EXPECT_EQ(timesOf(rig.probe->drops_), (Times{0ms, 1ms, 2ms, 18ms, 19ms}));
}

TEST(CaptureOutputs, AReplacedDelegateIsToldNothingMore) {
    Rig rig;
    const auto otherQueue = std::make_shared<ManualQueue>();
    const auto other = std::make_shared<test::CaptureProbe>(otherQueue);
    rig.deliver({1ms, 2ms});
    rig.video->setSampleBufferDelegate(other, otherQueue);
    rig.deliver({3ms});
    rig.queue->runAll();
    otherQueue->runAll();
    EXPECT_THAT(rig.received(), ElementsAre(0, 0, 0));
    EXPECT_EQ(timesOf(other->frames_), (Times{3ms})) << "a frame for another delegate does not count as late";

    // From its own delivery: must not wait for itself.
    other->onFrame = [&](const auto&) { rig.video->setSampleBufferDelegate({}, nullptr); };
    for (const auto time : {4ms, 5ms, 6ms}) {
        rig.deliver({time});
        otherQueue->runAll();
    }
    EXPECT_EQ(timesOf(other->frames_), (Times{3ms, 4ms}));
}

TEST(CaptureOutputs, SoundComesInOrderAndCodesOneAtATimeWhenLookedFor) {
    Rig rig;
    rig.metadata->setMetadataObjectTypes({"QR"});
    rig.step(1500ms);
    EXPECT_THAT(rig.probe->objects_, IsEmpty());
    rig.metadata->setMetadataObjectTypes({"QR", kMetadataObjectTypePDF417Code});
    rig.deliver({1600ms, 2500ms});
    rig.queue->runAll();
    rig.step(2600ms);
    ASSERT_THAT(rig.probe->objects_, SizeIs(2));
    EXPECT_EQ(rig.probe->objects_[0].stringValue.value() + rig.probe->objects_[1].stringValue.value(), "firstsecond");
    const Times sounds = timesOf(rig.probe->sounds_);
    EXPECT_GT(sounds.size(), 40U);
    EXPECT_TRUE(std::is_sorted(sounds.begin(), sounds.end()));
}

TEST(CaptureSessions, JoinOneOfEachKindOfTheirOwnSystem) {
    Rig rig, elsewhere;
    LogCapture log;
    const auto camera = rig.system->makeDeviceInput(rig.system->defaultDevice(MediaType::Video)).value();
    const auto foreign = elsewhere.system->makeDeviceInput(elsewhere.system->defaultDevice(MediaType::Video)).value();
    const auto empty = rig.system->makeSession();
    EXPECT_FALSE(empty->canAddInput(*foreign));
    EXPECT_FALSE(empty->canAddOutput(*elsewhere.system->makeAudioDataOutput()));
    EXPECT_FALSE(empty->canAddOutput(*rig.video)) << "another session has it";
    EXPECT_TRUE(empty->canAddInput(*camera));
    EXPECT_FALSE(rig.session->canAddInput(*camera)) << "there is one";
    EXPECT_FALSE(rig.session->canAddOutput(*rig.system->makeVideoDataOutput()));
    empty->addInput(nullptr);
    empty->addOutput(rig.video);
    EXPECT_THAT(log.take(), SizeIs(2));
    rig.session = nullptr;
    EXPECT_THAT(rig.video->connections(), IsEmpty()) << "its session has gone";
    EXPECT_TRUE(empty->canAddOutput(*rig.video));
}

TEST(CaptureSessions, ConnectAnOutputWhileThereIsAMatchingInput) {
    Rig rig;
    const auto connected = [&] {
        return std::vector{rig.video->connections().size(), rig.audio->connections().size()};
    };
    EXPECT_FALSE(rig.audio->connections().at(0)->isVideoOrientationSupported());
    EXPECT_THAT(connected(), ElementsAre(1, 1));
    rig.session->removeInput(rig.inputs[0]);
    EXPECT_THAT(connected(), ElementsAre(0, 1));
    rig.step(1ms);
    EXPECT_THAT(rig.probe->frames_, IsEmpty());
    rig.session->addInput(rig.inputs[0]);
    rig.session->removeOutput(rig.audio);
    EXPECT_THAT(connected(), ElementsAre(1, 0));

    LogCapture log;
    rig.video->setPixelFormat(kPixelFormat420v);
    rig.video->setPixelFormat(kPixelFormat32ARGB);
    EXPECT_THAT(log.take(), SizeIs(1));
    rig.step(2ms);
    EXPECT_EQ(rig.probe->last_, (VideoFormatDescription{kPixelFormat420v, 640, 480}));
}

}  // namespace
}  // namespace selvio
