#include <sys/stat.h>
#include <unistd.h>
#include "CaptureRig.h"
#include "platform/linux/gstreamer/CaptureRules.h"
#include "platform/linux/gstreamer/GstOutputs.h"

#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

#include <future>

namespace {

using namespace selvio;
using namespace selvio::rules;

/// The one camera of a system that looks for no others.
Camera cameraOf(CaptureOptions options) {
    options.systemDevices = false;
    auto system = makeGstCaptureSystem(std::move(options));
    return {system, system->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Back)->devices.at(0)};
}

SourceCamera sourceCamera(const char* source = "videotestsrc is-live=true pattern=white") {
    return {.name = "camera", .source = source, .width = 320, .height = 240};
}

TEST(Capture, TakesUpChangesWhileItRuns) {
    Rig rig(cameraOf({.sources = {sourceCamera()}}));
    const auto comes = [&](PixelFormat format, int width) {
        return rig.probe->waitFor([&] { return rig.probe->last_ == VideoFormatDescription{format, width, 240}; });
    };
    rig.session->startRunning();
    ASSERT_TRUE(comes(kPixelFormat32BGRA, 320));
    rig.output->connections().at(0)->setVideoOrientation(VideoOrientation::Portrait);
    EXPECT_TRUE(comes(kPixelFormat32BGRA, 134));
    rig.session->beginConfiguration();
    rig.output->setPixelFormat(kPixelFormat420v);
    rig.session->commitConfiguration();
    EXPECT_TRUE(comes(kPixelFormat420v, 134));
    rig.session->removeInput(rig.input);
    rig.queue->drain();
    const auto last = rig.probe->frameCount();
    const auto then = rig.session->masterClockTime();
    EXPECT_TRUE(comesTrue([&] { return rig.session->masterClockTime() - then > 100ms; }));
    EXPECT_TRUE(rig.session->isRunning());
    EXPECT_EQ(rig.probe->frameCount(), last) << "without a camera nothing comes";
    rig.session->addInput(rig.input);
    EXPECT_TRUE(rig.probe->waitForFrames(1));
}

// By then the session runs, for who is called and for everyone else.
TEST(Capture, TheFirstFrameMayStopTheSession) {
    LogCapture log;
    const Camera camera = cameraOf({.sources = {sourceCamera()}});
    for (int i = 0; i < 20; ++i) {
        Rig rig(camera);
        std::vector<bool> ran;
        rig.probe->onFrame = [&](const auto&) {
            ran.push_back(rig.session->isRunning());
            rig.session->stopRunning();
        };
        rig.session->startRunning();
        ASSERT_TRUE(rig.probe->waitFor([&] { return !rig.probe->frames_.empty(); }));
        rig.queue->drain();
        EXPECT_FALSE(rig.session->isRunning());
        EXPECT_TRUE(ran[0]);
        EXPECT_LE(ran.size(), 2U) << "one more may have waited";
    }
    EXPECT_TRUE(log.take().empty());
}

TEST(Capture, AStopEndsTheOpeningOfACameraThatDoesNotAnswer) {
    LogCapture log;
    Rig rig(cameraOf({.sources = {sourceCamera("appsrc is-live=true")}, .openingTimeout = 1min}));
    std::jthread opener([&] { rig.session->startRunning(); });
    ASSERT_TRUE(comesTrue([&] { return rig.session->isRunning(); }));
    const auto before = rig.session->masterClockTime();
    rig.session->stopRunning();
    opener.join();
    EXPECT_LT(rig.session->masterClockTime() - before, 20s);
    EXPECT_FALSE(rig.session->isRunning());
    EXPECT_TRUE(log.take().empty()) << "nothing has failed";
}

TEST(Capture, FramesMayBeHeld) {
    expectFramesMayBeHeld(cameraOf({.sources = {sourceCamera("videotestsrc is-live=true pattern=snow")}}));
}

// One that takes a while to be closed, and cannot be opened twice.
TEST(Capture, AStartWaitsUntilACameraWhoseOpeningWasStoppedIsClosed) {
    LogCapture log;
    const std::string source =
        "udpsrc address=127.0.0.1 reuse=false port=" + std::to_string(20000 + ::getpid() % 9999) +
        " ! fakesink async=false videotestsrc is-live=true ! identity sleep-time=300000";
    Rig rig(cameraOf({.sources = {sourceCamera(source.c_str())}}));
    for (int i = 0; i < 3; ++i) {
        std::jthread opener([&] { rig.session->startRunning(); });
        ASSERT_TRUE(comesTrue([&] { return rig.session->isRunning(); }));
        rig.session->stopRunning();
        opener.join();
        rig.session->startRunning();
        EXPECT_TRUE(rig.session->isRunning());
        rig.session->stopRunning();
    }
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST(Capture, SaysWhyACameraDoesNotStartOrEnds) {
    const std::tuple<const char*, bool, const char*> cases[] = {
        {"nosuchsource", false, "Capture: could not start: \"nosuchsource\": no element \"nosuchsource\""},
        {"appsrc is-live=true", false, "\"camera\" delivers no frames"},
        {"videotestsrc is-live=true ! identity error-after=10", true, "Capture: stopped: identity"},
        // After ten frames the next source is waited for, which never sends any.
        {"concat name=c videotestsrc is-live=true num-buffers=10 ! c.sink_0 appsrc is-live=true ! c.sink_1", true,
         "Capture: stopped: the camera delivers no more"},
    };
    for (const auto& [source, starts, reason] : cases) {
        SCOPED_TRACE(source);
        LogCapture log;
        Rig rig(cameraOf(
            {.sources = {sourceCamera(source)}, .openingTimeout = starts ? 5000ms : 300ms, .stallTimeout = 300ms}));
        rig.session->startRunning();
        EXPECT_TRUE(!starts || rig.probe->waitForFrames(1));
        EXPECT_THAT(linesAtTheEndOf(*rig.session, log), Contains(HasSubstr(reason)));
        rig.session->startRunning();
        EXPECT_EQ(rig.session->isRunning(), starts) << "it may be started again";
    }
}

TEST(Capture, TorchIsAnLedWhoseFunctionIsLight) {
    const TemporaryDirectory leds;
    for (const std::string name : {"input3::capslock", "white:flash"}) {
        leds.write(name + "/brightness", "0");
        leds.write(name + "/max_brightness", "37");
    }
    const auto camera = cameraOf({.sources = {sourceCamera()}, .ledDirectory = leds.path()}).second;
    for (const auto& [mode, level] : {std::pair{TorchMode::On, "37"}, {TorchMode::Off, "0"}}) {
        camera->setTorchMode(mode);
        EXPECT_EQ(contentOf(leds.path() / "white:flash/brightness"), level);
        EXPECT_EQ(contentOf(leds.path() / "input3::capslock/brightness"), "0");
    }
    EXPECT_TRUE(camera->hasTorch());
}

TEST(Capture, AVideoFileIsACameraThatPlaysOnceInRealTime) {
    const TemporaryDirectory directory;
    const std::string file = directory.path() / "clip with space.mp4";
    outputOf(
        "gst-launch-1.0 -q videotestsrc num-buffers=20 ! video/x-raw,width=360,height=640 ! x264enc ! mp4mux ! "
        "filesink location='" +
        file + "'");
    LogCapture log;
    Rig rig(cameraOf({.videoFiles = {file}}), 0, VideoOrientation::Portrait);
    rig.session->startRunning();
    EXPECT_THAT(linesAtTheEndOf(*rig.session, log), Contains("Capture: stopped: the video has ended"));
    rig.queue->drain();
    const auto& frames = rig.probe->frames_;
    ASSERT_GE(frames.size(), 15U);
    EXPECT_EQ(rig.probe->last_, (VideoFormatDescription{kPixelFormat32BGRA, 360, 640}));
    EXPECT_GT(*frames.back().presentationTime - *frames.front().presentationTime, 450ms);
}

TEST(Capture, NodesThatMayNotBeOpenedMeanDenied) {
    const TemporaryDirectory nodes;
    const auto system = makeGstCaptureSystem({.deviceDirectory = nodes.path()});
    EXPECT_EQ(system->authorizationStatus(MediaType::Video), AuthorizationStatus::Authorized) << "no camera yet";
    ::chmod(nodes.write("video0", "x").c_str(), 0);
    ::chmod(nodes.path().c_str(), 0755);
    const bool isRoot = ::geteuid() == 0;
    ASSERT_TRUE(!isRoot || ::seteuid(65534) == 0);
    EXPECT_EQ(system->authorizationStatus(MediaType::Video), AuthorizationStatus::Denied);
    ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
}

TEST(Capture, StandsEveryOperationFromSeveralThreadsAtOnceAndLeavesNothingBehind) {
    Rig rig(cameraOf({.sources = {sourceCamera()}}), kPixelFormat420v);
    const auto startOrStop = [&](int i) { i % 2 == 0 ? rig.session->startRunning() : rig.session->stopRunning(); };
    const std::function<void(int)> operations[] = {
        startOrStop,
        [&](int i) { startOrStop(i + 1); },
        [&](int i) { rig.output->setSampleBufferDelegate(i % 2 == 0 ? nullptr : rig.probe, rig.queue); },
        [&](int i) { rig.output->connections().at(0)->setVideoOrientation(static_cast<VideoOrientation>(i % 5)); },
        [&](int i) {
            const std::lock_guard monitor(rig.session->monitor());
            rig.session->beginConfiguration();
            rig.output->setPixelFormat(i % 2 == 0 ? 0 : kPixelFormat420v);
            rig.session->commitConfiguration();
        },
    };
    const auto work = [&](int rounds) {
        std::vector<std::jthread> threads;
        for (const auto& operation : operations) {
            threads.emplace_back([&] {
                for (int i = 0; i < rounds; ++i) operation(i);
            });
        }
        threads.clear();
        rig.output->setSampleBufferDelegate(rig.probe, rig.queue);
        rig.capture(2);  // still works
    };
    work(50);  // GStreamer keeps a few threads for the next time
    const auto threads = entriesIn("/proc/self/task"), descriptors = entriesIn("/proc/self/fd");
    work(300);
    EXPECT_TRUE(comesTrue([&] {
        return entriesIn("/proc/self/task") < threads + 10 && entriesIn("/proc/self/fd") < descriptors + 10;
    })) << "some may be at their end";
}

constexpr int kWidth = 1280, kHeight = 720;
constexpr const char* kText =
    "@ANSI 636000080002DL00410278ZV03190008DLDAQT64235789 DCSSAMPLE DDEN DACMICHAEL DDFN DADJOHN DCUJR DCAD DCBK DCDPH "
    "DBD06062019";

/// The grey levels that the camera sees of a card with a PDF417 code in a light that falls off, and where the code's
/// bars are in it. `turned` stands the code on its side.
std::pair<std::string, Rect> cardWith(int module, bool turned) {
    auto code = ZXing::MultiFormatWriter(ZXing::BarcodeFormat::PDF417).setMargin(0).encode(kText, 0, 0);
    if (turned) code.rotate90();
    const int width = code.width() * module, height = code.height() * module;
    const int left = (kWidth - width) / 2, top = (kHeight - height) / 2 + 40;
    std::string levels(std::size_t{kWidth} * kHeight, '\0');
    for (int i = 0; i < kWidth * kHeight; ++i) {
        const int x = i % kWidth - left, y = i / kWidth - top;
        const bool ink = x >= 0 && x < width && y >= 0 && y < height && code.get(x / module, y / module);
        levels[static_cast<std::size_t>(i)] = static_cast<char>((ink ? 40 : 200) * (kWidth - i % kWidth) / kWidth);
    }
    return {levels, {1.0 * left, 1.0 * top, 1.0 * width, 1.0 * height}};
}

TEST(Barcode, IsWhereAPersonSeesItOnAMirroredView) {
    const auto view = makeGstView();
    view->setFrame({0, 0, 200, 100});
    EXPECT_EQ(view->layer()->transformedMetadataObject({"PDF417", "text", {0.125, 0.25, 0.5, 0.5}}).bounds,
              (Rect{75, 25, 100, 50}));
}

TEST(Barcode, ReadsPdf417CodesWhileFramesKeepArriving) {
    const TemporaryDirectory directory;
    for (const bool portrait : {false, true}) {
        SCOPED_TRACE(portrait);
        const auto [levels, place] = cardWith(portrait ? 3 : 2, portrait);
        const auto orientation = portrait ? VideoOrientation::Portrait : VideoOrientation::LandscapeRight;
        const Camera camera =
            cameraOf({.sources = {{.name = "card",
                                   .source = "filesrc location=" + directory.write("card.gray", levels) +
                                             " blocksize=" + std::to_string(levels.size()) +
                                             " ! rawvideoparse format=gray8 width=1280 height=720"
                                             " ! imagefreeze is-live=true ! videoconvert",
                                   .rawFormat = portrait ? "NV12" : "BGRA"}}});
        Rig rig(camera, portrait ? kPixelFormat420v : kPixelFormat32BGRA, orientation);
        const auto output = camera.first->makeMetadataOutput();
        output->setMetadataObjectsDelegate(rig.probe, rig.queue);
        rig.session->addOutput(output);
        output->setMetadataObjectTypes({kMetadataObjectTypePDF417Code});
        output->connections().at(0)->setVideoOrientation(orientation);

        rig.session->startRunning();
        ASSERT_TRUE(rig.probe->waitFor([&] { return rig.probe->objects_.size() >= 3; }))
            << "a code that stays in view is told again";
        rig.capture(5);
        const VideoFormatDescription frame = rig.probe->last_;
        for (const MetadataObject& object : rig.probe->objects_) {
            EXPECT_EQ(object.stringValue, kText);
            const Rect& box = object.bounds;
            EXPECT_NEAR(box.x * frame.width, place.x - (kWidth - frame.width) / 2.0, 20);
            EXPECT_NEAR(box.y * frame.height, place.y, 20);
            EXPECT_LT(std::hypot(box.width * frame.width - place.width, box.height * frame.height - place.height), 40);
        }

        // What two searches have found, with the delegate's queue held, is not told after the run.
        const auto told = rig.probe->objects_.size();
        std::promise<void> release;
        rig.queue->async([&] { release.get_future().wait(); });
        rig.session->startRunning();
        for (const bool wants : {true, false, true, false, true})
            EXPECT_TRUE(comesTrue([&] { return dynamic_cast<GstMetadataOutput&>(*output).wantsFrame() == wants; }));
        rig.session->stopRunning();
        release.set_value();
        rig.queue->drain();
        EXPECT_EQ(rig.probe->objects_.size(), told);
        output->setMetadataObjectsDelegate({}, nullptr);
    }
}

TEST(CaptureRules, PreferTheRateOfThirtyOrTheNextBest) {
    const std::pair<std::vector<FrameRate>, FrameRate> rows[] = {
        {{{120, 1}, {60, 1}}, {60, 1}},
        {{{0, 1}, {1, 0}, {2147483647, 1}, {5, 1}, {15, 2}}, {15, 2}},
        {ratesBetween({1, 1}, {60, 1}), {30, 1}},
        {ratesBetween({50, 1}, {60, 1}), {60, 1}},
    };
    for (const auto& [rates, expected] : rows) EXPECT_EQ(preferredRate(rates), expected);
}

TEST(CaptureRules, PreferFullRateThenNoConversionThenRaw) {
    const CameraMode yuyv{false, "YUY2", 1280, 720, {10, 1}};
    const CameraMode jpeg{true, "", 1280, 720, {30, 1}};
    const CameraMode nv12{false, "NV12", 1280, 720, {30, 1}};
    const CameraMode i420{false, "I420", 1280, 720, {60, 1}};
    const CameraMode small{false, "NV12", 640, 480, {30, 1}};
    const std::pair<std::vector<CameraMode>, std::optional<CameraMode>> rows[] = {
        {{yuyv, jpeg}, jpeg}, {{jpeg, i420, nv12}, nv12}, {{jpeg, i420}, i420}, {{small}, std::nullopt}};
    for (const auto& [modes, expected] : rows) {
        const CameraMode* const chosen = chooseMode(modes, 1280, 720, kPixelFormat420v);
        EXPECT_EQ(chosen ? std::optional(*chosen) : std::nullopt, expected) << modes[0].format;
    }
}

TEST(CaptureRules, PresetsStandForSizes) {
    // No preset: nothing was set.
    const std::tuple<std::vector<std::pair<int, int>>, const char*, std::pair<int, int>> cases[] = {
        {{{640, 480}, {1280, 720}}, kCaptureSessionPreset1920x1080, {0, 0}},
        {{{640, 480}, {3840, 2160}, {1280, 960}}, kCaptureSessionPresetHigh, {1280, 960}},
        {{{1920, 1080}, {1280, 720}}, nullptr, {1280, 720}},
        {{{320, 240}, {640, 480}}, nullptr, {640, 480}}};
    for (const auto& [sizes, preset, expected] : cases) {
        std::vector<CaptureDeviceFormat> formats;
        for (const auto& [w, h] : sizes) formats.push_back({{kPixelFormat420v, w, h}, 30});
        const auto found = preset ? formatForPreset(formats, preset) : initialFormat(formats);
        const auto size = found.value_or(CaptureDeviceFormat{}).formatDescription;
        EXPECT_EQ(std::pair(size.width, size.height), expected);
    }
}

TEST(CaptureRules, TheMiddleIsCutInTheShapeOfTheOrientation) {
    EXPECT_EQ(cropFor(720, 1280, VideoOrientation::LandscapeLeft), (FrameCrop{0, 438, 720, 404}));
    EXPECT_EQ(cropFor(1280, 720, VideoOrientation::NotSet), (FrameCrop{0, 0, 1280, 720}));
}

TEST(CaptureRules, TimeInWhichTheProcessWasStoppedIsNoWait) {
    Wait wait(0s, 1s);
    EXPECT_EQ(wait.look(1s), 1s);
    EXPECT_EQ(wait.look(3s), 3s);
    EXPECT_EQ(wait.look(4s, 3500ms), 500ms);
    EXPECT_EQ(wait.look(6001ms, 3500ms), 0s);
    EXPECT_EQ(wait.look(8s), 1999ms);
}

TEST(AudioClock, SmoothsJitterFollowsDriftAndJumpsOverLosses) {
    AudioClock clock;
    constexpr nanoseconds start = 5000ms, block = 10ms;
    EXPECT_EQ(clock.place(start, 480, 48000), start);
    for (int i = 1; i <= 50; ++i) {
        const nanoseconds placed = clock.place(start + i * block + (i % 2 == 0 ? 9ms : 0ms), 480, 48000);
        EXPECT_LT(std::chrono::abs(placed - start - i * block), 6ms) << i;
    }
    nanoseconds placed{0};
    for (int i = 51; i <= 250; ++i) placed = clock.place(5040ms + i * block, 480, 48000);
    EXPECT_LT(std::chrono::abs(placed - 7540ms), 1ms) << "a lasting offset is taken up";
    EXPECT_EQ(clock.place(9000ms, 480, 48000), 9000ms);
}

}  // namespace
