#include "CaptureProbe.h"
#include "support/Child.h"
#include "support/MediaProbe.h"
#include "support/Resources.h"

#include <SelvioFacialCapture/linux/Capture.h>

#include <support/LogCapture.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <fstream>
#include <thread>

namespace selvio {
namespace {

using namespace test;
using std::chrono::milliseconds;
using ::testing::Contains;
using ::testing::HasSubstr;

SourceCamera testPicture(std::string rawFormat = "NV12", int width = 320, int height = 240) {
    return {.name = "picture", .source = "videotestsrc is-live=true", .width = width, .height = height, .rawFormat = std::move(rawFormat)};
}

std::shared_ptr<CaptureSystem> systemOf(CaptureOptions options) {
    options.systemDevices = false;
    return makeGstCaptureSystem(std::move(options));
}

std::shared_ptr<CaptureDevice> firstCamera(const std::shared_ptr<CaptureSystem>& system) {
    const auto found = system->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Back)->devices;
    return found.empty() ? nullptr : found.front();
}

/// Lets the camera run on for some time of its own clock.
void letPass(const CaptureSession& session, milliseconds time) {
    const auto start = session.masterClockTime();
    while (session.masterClockTime() - start < time) std::this_thread::yield();
}

TEST(Capture, DeliversFramesInFormatAndShapeOnTheMasterClock) {
    struct Case {
        const char* raw;
        PixelFormat format;
        std::int64_t orientation;
        VideoFormatDescription expected;
    };
    const Case cases[] = {
        {"NV12", kPixelFormat420v, 3, {kPixelFormat420v, 320, 240}},
        {"NV12", kPixelFormat420v, 1, {kPixelFormat420v, 134, 240}},
        {"BGRA", 0, 2, {kPixelFormat32BGRA, 134, 240}},
        {"YUY2", 0, 4, {kPixelFormat32BGRA, 320, 240}},
        {"YUY2", kPixelFormat420v, 1, {kPixelFormat420v, 134, 240}},
        {"NV12", 0x34323066, 3, {kPixelFormat32BGRA, 320, 240}},  // 420f, which is refused
    };
    for (const Case& c : cases) {
        LogCapture log;
        SCOPED_TRACE(testing::Message() << c.raw << " orientation " << c.orientation);
        const auto system = systemOf({.sources = {testPicture(c.raw)}});
        Rig rig(system, firstCamera(system), c.format);
        rig.output->connections().at(0)->setVideoOrientation(static_cast<VideoOrientation>(c.orientation));
        const auto before = rig.session->masterClockTime();
        rig.session->startRunning();
        ASSERT_TRUE(rig.session->isRunning());
        ASSERT_TRUE(rig.probe->waitForFrames(10));
        rig.session->stopRunning();
        rig.queue->drain();
        EXPECT_FALSE(rig.session->isRunning());
        EXPECT_EQ(rig.probe->lastFormat(), c.expected);
        EXPECT_EQ(log.take().empty(), c.format == 0 || c.format == c.expected.mediaSubType);
        for (std::size_t i = 0; i < rig.probe->frames_.size(); ++i) {
            const auto& timing = rig.probe->frames_[i];
            EXPECT_GE(*timing.presentationTime, i == 0 ? before : *rig.probe->frames_[i - 1].presentationTime + milliseconds(20));
            EXPECT_LE(*timing.presentationTime, rig.session->masterClockTime());
        }
        const auto count = rig.probe->frameCount();
        rig.queue->drain();
        EXPECT_EQ(rig.probe->frameCount(), count) << "nothing comes after stop";
    }
}

TEST(Capture, TakesUpChangesWhileItRuns) {
    const auto system = systemOf({.sources = {testPicture()}});
    Rig rig(system, firstCamera(system));
    rig.session->startRunning();
    ASSERT_TRUE(rig.probe->waitForSize(320, 240));
    rig.output->connections().at(0)->setVideoOrientation(VideoOrientation::Portrait);
    EXPECT_TRUE(rig.probe->waitForSize(134, 240)) << "a turn takes effect with the next frame";
    rig.session->beginConfiguration();
    rig.output->setPixelFormat(kPixelFormat420v);
    rig.session->commitConfiguration();
    EXPECT_TRUE(rig.probe->waitForFrames(2));
    EXPECT_EQ(rig.probe->lastFormat().mediaSubType, kPixelFormat420v);
    rig.output->setSampleBufferDelegate({}, nullptr);
    const auto count = rig.probe->frameCount();
    letPass(*rig.session, milliseconds(100));
    rig.queue->drain();
    EXPECT_EQ(rig.probe->frameCount(), count) << "ended deliveries stay ended";
    EXPECT_TRUE(rig.session->isRunning());
    rig.session->removeInput(rig.input);
    EXPECT_FALSE(rig.session->isRunning()) << "without a camera there is nothing to run";
}

TEST(Capture, ALateFrameGivesWayToTheNewestWithANotice) {
    const auto system = systemOf({.sources = {testPicture()}});
    Rig rig(system, firstCamera(system));
    rig.probe->block(true);
    rig.session->startRunning();
    // The delegate sits on its first frame: the camera goes on, and the notices queue up behind it.
    letPass(*rig.session, milliseconds(400));
    rig.probe->block(false);
    ASSERT_TRUE(rig.probe->waitForFrames(1));
    EXPECT_TRUE(rig.probe->waitFor([&] { return rig.probe->drops_ >= 5; }));
    ASSERT_TRUE(rig.probe->waitForFrames(2));
    rig.session->stopRunning();
    rig.queue->drain();
    EXPECT_GT(*rig.probe->frames_.at(1).presentationTime - *rig.probe->frames_.at(0).presentationTime, milliseconds(250));
}

TEST(Capture, SaysWhyACameraDoesNotStart) {
    struct Case {
        const char* what;
        SourceCamera camera;
        const char* log;
    };
    const Case cases[] = {
        {"no such element", {.name = "a", .source = "nosuchsource"}, "Capture: could not start: \"nosuchsource\": no element \"nosuchsource\""},
        {"no frames", {.name = "b", .source = "appsrc is-live=true", .width = 320, .height = 240}, "\"b\" delivers no frames"},
        {"fails at once", {.name = "c", .source = "videotestsrc ! identity error-after=1", .width = 320, .height = 240}, "identity"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture log;
        const auto system = systemOf({.sources = {c.camera}, .openingTimeout = milliseconds(300)});
        Rig rig(system, firstCamera(system));
        rig.session->startRunning();
        EXPECT_FALSE(rig.session->isRunning());
        EXPECT_THAT(log.take(), Contains(HasSubstr(c.log)));
    }
    LogCapture log;
    const auto session = systemOf({})->makeSession();
    session->startRunning();
    EXPECT_FALSE(session->isRunning());
    EXPECT_THAT(log.take(), Contains("Capture: could not start: the session has no camera"));
}

TEST(Capture, ACameraThatFallsSilentOrFailsEndsTheRun) {
    struct Case {
        const char* source;
        const char* log;
    };
    const Case cases[] = {
        {"videotestsrc is-live=true ! identity error-after=10", "Capture: stopped: identity"},
        // After ten frames the next source is waited for, which never sends any.
        {"concat name=c videotestsrc is-live=true num-buffers=10 ! c.sink_0 appsrc is-live=true ! c.sink_1",
         "Capture: stopped: the camera delivers no more"},
    };
    for (const Case& c : cases) {
        LogCapture log;
        const SourceCamera camera{.name = "ends", .source = c.source, .width = 320, .height = 240};
        const auto system = systemOf({.sources = {camera}, .stallTimeout = milliseconds(300)});
        Rig rig(system, firstCamera(system));
        rig.session->startRunning();
        ASSERT_TRUE(rig.probe->waitForFrames(1));
        EXPECT_THAT(linesAtTheEndOf(*rig.session, log), Contains(HasSubstr(c.log)));
        rig.session->startRunning();
        EXPECT_TRUE(rig.session->isRunning()) << "and may be started again";
    }
}

TEST(Capture, RefusesSecondInputsAndForeignOutputs) {
    const auto system = systemOf({.sources = {testPicture()}});
    Rig rig(system, firstCamera(system));
    EXPECT_FALSE(rig.session->canAddInput(*rig.input));
    EXPECT_FALSE(rig.session->canAddOutput(*system->makeVideoDataOutput()));
    EXPECT_TRUE(rig.session->canAddOutput(*system->makeMetadataOutput()));
    const auto audio = system->makeAudioDataOutput();
    rig.session->addOutput(audio);
    EXPECT_TRUE(audio->connections().empty()) << "there is no microphone";
    EXPECT_EQ(rig.output->connections().size(), 1U);
    EXPECT_FALSE(rig.session->canSetSessionPreset(kCaptureSessionPreset1280x720));
    EXPECT_TRUE(rig.session->canSetSessionPreset(kCaptureSessionPresetHigh));
    rig.session->removeOutput(rig.output);
    EXPECT_TRUE(rig.output->connections().empty());
    EXPECT_FALSE(system->makeDeviceInput(nullptr));
    EXPECT_EQ(system->defaultDevice(MediaType::Audio), nullptr);
}

TEST(Capture, AVideoFileIsACameraThatPlaysOnce) {
    TemporaryDirectory directory;
    const auto file = directory.path() / "clip with space.mp4";
    outputOf(
        "gst-launch-1.0 -q videotestsrc num-buffers=20 ! video/x-raw,width=360,height=640,framerate=30/1 ! x264enc ! mp4mux ! filesink location='" +
        file.string() + "'");
    LogCapture log;
    const auto system = systemOf({.videoFiles = {file, directory.path() / "missing.mp4"}});
    const auto devices = system->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Front)->devices;
    ASSERT_EQ(devices.size(), 1U);
    EXPECT_THAT(log.take(), Contains(HasSubstr("missing.mp4\" cannot be played")));
    EXPECT_EQ(devices[0]->localizedName(), file.string());
    EXPECT_EQ(devices[0]->activeFormat()->formatDescription.height, 640);
    Rig rig(system, devices[0]);
    rig.output->connections().at(0)->setVideoOrientation(VideoOrientation::Portrait);
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(15)) << rig.probe->frameCount();
    EXPECT_EQ(rig.probe->lastFormat(), (VideoFormatDescription{kPixelFormat32BGRA, 360, 640}));
    EXPECT_THAT(linesAtTheEndOf(*rig.session, log), Contains("Capture: stopped: the video has ended"));
    rig.queue->drain();
    const auto played = *rig.probe->frames_.back().presentationTime - *rig.probe->frames_.front().presentationTime;
    EXPECT_GT(played, milliseconds(450)) << "in real time";
}

TEST(Capture, TorchIsAnLedWhoseFunctionIsLight) {
    TemporaryDirectory leds;
    for (const char* const name : {"input3::capslock", "white:flash"}) {
        leds.write(std::string(name) + "/brightness", "0");
        leds.write(std::string(name) + "/max_brightness", "37");
    }
    const auto brightness = [&](const char* name) { return std::stoi(contentOf(leds.path() / name / "brightness")); };
    SourceCamera front = testPicture();
    front.position = CaptureDevicePosition::Front;
    const auto system = systemOf({.sources = {front, testPicture()}, .ledDirectory = leds.path()});
    EXPECT_FALSE(system->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Front)->devices.at(0)->hasTorch());
    const auto camera = firstCamera(system);
    ASSERT_TRUE(camera->hasTorch());
    camera->setTorchMode(TorchMode::On);
    EXPECT_EQ(brightness("white:flash"), 37);
    EXPECT_EQ(brightness("input3::capslock"), 0);
    camera->setTorchMode(TorchMode::Off);
    EXPECT_EQ(brightness("white:flash"), 0);
    EXPECT_FALSE(camera->isFocusModeSupported(FocusMode::ContinuousAutoFocus)) << "a picture has no focus";
}

TEST(Capture, NodesThatMayNotBeOpenedMeanDenied) {
    TemporaryDirectory nodes;
    const auto status = [&] {
        CaptureOptions options;
        options.deviceDirectory = nodes.path();
        return makeGstCaptureSystem(options)->authorizationStatus(MediaType::Video);
    };
    EXPECT_EQ(status(), AuthorizationStatus::Authorized) << "no camera is not a refusal";
    const std::string node = nodes.write("video0", "x");
    EXPECT_EQ(status(), AuthorizationStatus::Authorized);
    ::chmod(node.c_str(), 0);
    ::chmod(nodes.path().c_str(), 0755);
    const bool isRoot = ::geteuid() == 0;
    ASSERT_TRUE(!isRoot || ::seteuid(65534) == 0);
    EXPECT_EQ(status(), AuthorizationStatus::Denied);
    ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
}

TEST(Preview, ShowsTheFramesMirroredInAWindow) {
    if (outputOf("command -v Xvfb").empty()) GTEST_SKIP() << "Xvfb is not installed";
    Child server({"Xvfb", "-displayfd", "1", "-screen", "0", "720x720x24"});
    const std::string display = ":" + server.readLine().value_or("");  // said when it is ready
    ::setenv("DISPLAY", display.c_str(), 1);
    LogCapture log;
    {
        // Colour bars: white at the left of the picture, blue at its right.
        const SourceCamera bars{.name = "bars", .source = "videotestsrc is-live=true pattern=smpte", .width = 360, .height = 640};
        const auto system = systemOf({.sources = {bars}});
        const auto view = makeGstView({.window = true});
        view->setFrame({0, 0, 360, 640});
        EXPECT_EQ(view->layer()->connection(), nullptr);
        Rig rig(system, firstCamera(system));
        view->layer()->setSession(rig.session);
        EXPECT_NE(view->layer()->connection(), nullptr);
        rig.session->startRunning();
        const auto row = [&] {
            const std::string grabbed = outputOf("ffmpeg -v error -f x11grab -video_size 720x720 -i " + display +
                                                 " -frames:v 1 -vf crop=720:2:0:200,scale=720:1 -pix_fmt gray -f rawvideo -");
            return grabbed.size() == 720 ? grabbed : std::string(720, '\0');
        };
        const auto isDark = [](char c) { return c == '\0'; };
        std::string seen = row();
        for (int i = 0; i < 20 && std::all_of(seen.begin(), seen.end(), isDark); ++i) seen = row();
        const auto lit = [&](std::size_t x) { return static_cast<unsigned char>(seen[x]); };
        const auto first = std::find_if_not(seen.begin(), seen.end(), isDark) - seen.begin();
        EXPECT_LT(lit(static_cast<std::size_t>(first) + 20), 60) << "blue is at the left now";
        EXPECT_GT(lit(static_cast<std::size_t>(first) + 340), 150) << "and white at the right";
        const auto mapped = view->layer()->transformedMetadataObject({kMetadataObjectTypePDF417Code, std::nullopt, {0, 0, 0.25, 0.5}});
        EXPECT_NEAR(mapped.bounds.x, 270, 1);
        EXPECT_NEAR(mapped.bounds.height, 320, 1);
        view->addSubview({1, 77, {}});
        EXPECT_TRUE(view->removeSubviewWithTag(77));
        EXPECT_FALSE(view->removeSubviewWithTag(77));
        view->layer()->setSession(nullptr);
    }
    EXPECT_TRUE(log.take().empty());
    ::unsetenv("DISPLAY");
}

TEST(Capture, StandsEveryOperationFromSeveralThreadsAtOnce) {
    const auto system = systemOf({.sources = {testPicture("NV12", 64, 48)}});
    Rig rig(system, firstCamera(system), kPixelFormat420v);
    std::atomic<bool> ending{false};
    const std::function<void(int)> operations[] = {
        [&](int i) { i % 2 == 0 ? rig.session->startRunning() : rig.session->stopRunning(); },
        [&](int i) { i % 2 == 0 ? rig.session->stopRunning() : rig.session->startRunning(); },
        [&](int i) {
            if (i % 2 == 0) rig.output->setSampleBufferDelegate({}, nullptr);
            rig.output->setSampleBufferDelegate(rig.probe, rig.queue);
        },
        [&](int i) {
            for (const auto& connection : rig.output->connections()) connection->setVideoOrientation(static_cast<VideoOrientation>(i % 5));
            rig.camera->setTorchMode(i % 2 == 0 ? TorchMode::On : TorchMode::Off);
        },
        [&](int i) {
            const std::lock_guard monitor(rig.session->monitor());
            rig.session->beginConfiguration();
            rig.output->setPixelFormat(i % 2 == 0 ? 0 : kPixelFormat420v);
            rig.session->commitConfiguration();
        },
    };
    std::vector<std::thread> threads;
    for (const auto& operation : operations) {
        threads.emplace_back([&] {
            for (int i = 0; !ending; ++i) operation(i);
        });
    }
    const auto end = std::chrono::steady_clock::now() + milliseconds(700);
    while (std::chrono::steady_clock::now() < end) std::this_thread::yield();
    ending = true;
    for (std::thread& thread : threads) thread.join();
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(2)) << "and still works";
}

TEST(Capture, ManyStartsAndStopsLeaveNothingBehind) {
    const auto system = systemOf({.sources = {testPicture("NV12", 64, 48)}});
    Rig rig(system, firstCamera(system), kPixelFormat420v);
    const auto cycle = [&](int times) {
        for (int i = 0; i < times; ++i) {
            rig.session->startRunning();
            ASSERT_TRUE(rig.session->isRunning()) << i;
            rig.session->stopRunning();
        }
        rig.queue->drain();
    };
    cycle(50);  // GStreamer keeps a few threads for the next time
    const auto before = Resources::now();
    cycle(1000);
    const auto after = Resources::now();
    EXPECT_LE(after.threads, before.threads + 2);
    EXPECT_LE(after.descriptors, before.descriptors);
    EXPECT_LT(after.kilobytes - before.kilobytes, 8 << 10) << "less than 8 KB a cycle, which the allocator keeps";
}

}  // namespace
}  // namespace selvio
