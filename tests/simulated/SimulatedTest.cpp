// The simulated camera: what stands before it, and what its sessions and outputs have in common with those of every
// capture system.
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>
#include <gmock/gmock.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <numbers>
#include <numeric>
#include <thread>
#include <utility>

#include "simulated/SimulatedSupport.h"
#include "support/CaptureProbe.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ManualQueue.h"

namespace {

using namespace selvio;

using namespace std::chrono_literals;
using namespace ::testing;

// ---- scripts, geometries, and the frames that are drawn of them

TEST(SceneFiles, NameWhatIsWrong) {
    const std::string hidden = R"("keyFrames": [{"at": 0, "visible": false)";
    const std::pair<std::string, const char*> scripts[] = {
        {"\n\"keyFrames\": [\n  {\"at\": 0,}\n ]", "parse error at line 3, column 12: "},
        {R"("keyFrames": 3)", "keyFrames must be a list of 1 to 10000 key frames"},
        {"\"seed\": 1,\n\"seed\": 2", "line 2: the field \"seed\" is given twice in one object"},
        {R"("seed": 1.5)", "seed must be a whole number from 0 to 4294967295"},
        {hidden + R"(}], "loop": true)", "loop needs key frames that last longer"},
        {hidden + R"(}], "keyframes": [])", "keyframes is not a known field; known are "},
        {R"("keyFrames": [{"visible": false}])", "keyFrames[0].at is missing"},
        {R"("keyFrames": [{"at": 1, "visible": false}])", "keyFrames[0].at must be 0"},
        {R"("keyFrames": [{"at": 0, "visible": true, "jawWidth": 0.5}])", "keyFrames[0].center is missing for a visi"},
        {hidden + R"(, "center": [0.5]}])", "keyFrames[0].center must be a list of 2 numbers from -1 to 2"},
        {hidden + R"(, "jawWidth": 0}])", "keyFrames[0].jawWidth must be a number from 0.0"},
        {hidden + R"(, "second": {"center": [0, 0]}}])", "keyFrames[0].second.jawWidth "},
        {hidden + R"(}, {"at": 0}])", "keyFrames[1].at must be later"},
        {hidden + R"(, "hold": 2}, {"at": 1}])", "keyFrames[1].at falls into the hold"}};
    for (const auto& [json, message] : scripts) {
        const auto script = MotionScript::parse("{" + json + "}", "f");
        EXPECT_THAT(script ? "" : script.error().localizedDescription, StartsWith(std::string("f: ") + message));
    }
    for (const auto& [path, reason] : {std::pair{"/nowhere/x.json", "cannot be opened"}, {"/tmp", "is not a regular"}})
        EXPECT_THAT(MotionScript::load(path).error().localizedDescription, HasSubstr(reason));
    const std::pair<std::string, const char*> geometries[] = {
        {R"([10, 10], "jawRight": [61, 10])", "f: jawRight lies outside"},
        {R"([40, 10], "jawRight": [10, 10])", "f: jawLeft must lie to the left"},
        {R"([10, 10], "jawRight": [17, 10])", "f: the jaw is less than 8 pixels"},
        {R"([10, 10], "jawRight": [40, 10], "landmarks": {"chin": [5, 81]})", "f: landmarks.chin lies out"},
        {R"([10, 10], "jawRight": [40, 10], "landmarks": [])", "f: landmarks must be an object"}};
    for (const auto& [json, message] : geometries) {
        const auto geometry = FaceGeometry::parse(R"({"width": 60, "height": 80, "jawLeft": )" + json + "}", "f");
        EXPECT_THAT(geometry ? "" : geometry.error().localizedDescription, StartsWith(message));
    }
    EXPECT_EQ(FaceGeometry::pathBeside("a/b.c/face.jpg"), "a/b.c/face.json");
}

TEST(MotionScript, HoldsMovesAndSwitches) {
    const std::string json =
        R"({"keyFrames": [{"at": 0, "hold": 1, "visible": true, "barcode": "A", "center": [0.2, 0.4],
        "jawWidth": 0.5, "rotationRate": [0, 1, 0]}, {"at": 3, "center": [0.6, 0.4], "roll": 20, "smiling": true,
        "second": {"center": [0.9, 0.5], "jawWidth": 0.2}, "rotationRate": [0, 0, 0]},
        {"at": 5, "hold": 1, "visible": false, "second": null, "barcode": null}], "loop": )";
    const auto once = MotionScript::parse(json + "false}", "s").value();
    EXPECT_EQ(once.duration(), 6s);
    EXPECT_TRUE(once.tellsSmile());
    const std::tuple<std::chrono::milliseconds, double, double, double, bool> rows[] = {
        {-1s, 0.2, 0, 1, false},     {1s, 0.2, 0, 1, false}, {2s, 0.4, 10, 0.5, false},
        {2999ms, 0.6, 20, 0, false}, {4s, 0.6, 20, 0, true}, {99s, 0.6, 20, 0, false}};
    for (const auto& [time, x, roll, rate, second] : rows) {
        SCOPED_TRACE(time.count());
        const MotionState state = once.stateAt(time);
        EXPECT_NEAR(state.face.center.x, x, 0.001);
        EXPECT_NEAR(state.face.roll, roll, 0.011);
        EXPECT_NEAR(state.rotationRate.y, rate, 0.001);
        EXPECT_EQ(std::tuple(state.second.has_value(), state.visible, state.barcode.has_value(), state.smiling),
                  std::tuple(second, time < 5s, time < 5s, time >= 3s));
    }
    EXPECT_NEAR(MotionScript::parse(json + "true}", "s").value().stateAt(8s).face.center.x, 0.4, 1e-9);
}

// Of what is brighter than the photograph's dark grey.
Point centroid(const PixelBuffer& frame) {
    double sum = 0, sumX = 0, sumY = 0;
    for (int i = 0; i < frame.width() * frame.height(); ++i) {
        const int x = i % frame.width(), y = i / frame.width();
        const double b = std::max(0.0, *sampleAt(frame, x, y) - (frame.planeCount() == 1 ? 50.0 : 59.0));
        sum += b, sumX += b * (x + 0.5), sumY += b * (y + 0.5);
    }
    return {sumX / sum, sumY / sum};
}

TEST(SimulatedFrames, TruePointsLieWhereTheyAreDrawn) {
    for (const auto& [jaw, roll] : {std::pair{0.08, 0.0}, {0.6, -30.0}, {0.6, 90.0}}) {
        const auto frames = spotFrames(R"({"at": 0, "visible": true, "center": [0.48, 0.55], "jawWidth": )" +
                                       std::to_string(jaw) + R"(, "roll": )" + std::to_string(roll) + "}");
        for (const auto& [width, height] : {std::pair{640, 360}, {241, 431}}) {
            SCOPED_TRACE(testing::Message() << width << " jaw " << jaw << " roll " << roll);
            const FrameFace face = frames->trueGeometry(0s, width, height).at(0);
            const Point left = face.jawLeft, right = face.jawRight, spot = face.landmarks.at("spot");
            EXPECT_NEAR(std::hypot(right.x - left.x, right.y - left.y), jaw * std::min(width, height), 1e-3);
            EXPECT_NEAR(std::atan2(right.y - left.y, right.x - left.x), roll * std::numbers::pi / 180, 1e-4);
            EXPECT_NEAR((left.x + right.x) / 2, 0.48 * width, 1e-6);
            EXPECT_NEAR((left.y + right.y) / 2, 0.55 * height, 1e-6);
            for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat420v}) {
                const Point found = centroid(*frames->frame(0s, width, height, format));
                EXPECT_NEAR(found.x, spot.x, 0.15);
                EXPECT_NEAR(found.y, spot.y, 0.15);
            }
        }
    }
}

TEST(SimulatedFrames, LightAndNoiseAreWhatTheScriptSaysAndTheSameTimeGivesTheSameFrame) {
    const auto valuesAt = [](std::chrono::seconds time) {
        const auto frame = spotFrames(R"({"at": 0, "visible": false, "light": 1.5, "noise": 4})")
                               ->frame(time, 400, 400, kPixelFormat32BGRA);
        std::vector<double> values;
        values.reserve(400 * 400);
        for (int y = 0; y < 400; ++y)
            for (int x = 0; x < 400; ++x) values.push_back(sampleAt(*frame, x, y)[1]);
        return values;
    };
    const auto values = valuesAt(5s);
    EXPECT_TRUE(values == valuesAt(5s));
    EXPECT_FALSE(values == valuesAt(6s)) << "the noise does not stand still";
    const double mean = std::accumulate(values.begin(), values.end(), 0.0) / 160000;
    const double squares = std::inner_product(values.begin(), values.end(), values.begin(), 0.0) / 160000;
    EXPECT_NEAR(mean, 75, 0.1);
    EXPECT_NEAR(std::sqrt(squares - mean * mean), 4, 0.1);
}

TEST(SimulatedFrames, BadInputIsNamed) {
    const auto frames = spotFrames(kSteady);
    FaceGeometry small = spotGeometry();
    small.width = 219;
    EXPECT_THAT(SimulatedFrames::make(spotPhotograph(), small, frames->script()).error().localizedDescription,
                HasSubstr("220 x 300 pixels, its face geometry states 219"));
    EXPECT_FALSE(SimulatedFrames::make(nullptr, spotGeometry(), frames->script()));
    EXPECT_EQ(frames->frame(0s, 0, 5, kPixelFormat32BGRA), nullptr);
    EXPECT_EQ(frames->frame(0s, 5, 5, kPixelFormat32ARGB), nullptr);
}

TEST(Samples, EveryScriptCanBeRead) {
    for (const auto& file : std::filesystem::directory_iterator(SELVIO_SAMPLES "/scripts"))
        EXPECT_TRUE(MotionScript::load(file.path())) << file.path();
}

// ---- capture

/// A capture system and one session with everything joined, on a manual queue or on another.
struct Rig {
    explicit Rig(const std::string& keyFrames = kSteady,
                 const SimulatedCaptureOptions& options = {.pacing = SimulatedPacing::Manual},
                 const std::shared_ptr<Queue>& otherQueue = nullptr)
        : frames(spotFrames(keyFrames)), probe(std::make_shared<CaptureProbe>(otherQueue ? otherQueue : queue)) {
        clock->advance(1000s);
        if (!otherQueue) platform.clock = clock;
        system = useSimulatedCamera(platform, frames, options);
        session = system->makeSession();
        for (const auto mediaType : {MediaType::Video, MediaType::Audio})
            session->addInput(inputs.emplace_back(system->makeDeviceInput(system->defaultDevice(mediaType)).value()));
        session->addOutput(video = system->makeVideoDataOutput());
        session->addOutput(audio = system->makeAudioDataOutput());
        session->addOutput(metadata = system->makeMetadataOutput());
        video->setSampleBufferDelegate(probe, probe->queue_);
        audio->setSampleBufferDelegate(probe, probe->queue_);
        metadata->setMetadataObjectsDelegate(probe, probe->queue_);
        EXPECT_EQ(inputs[0]->device()->activeFormat(),
                  (CaptureDeviceFormat{{kPixelFormat420v, 1280, 720}, options.frameRate}));
        session->setSessionPreset(kCaptureSessionPreset640x480);
        if (!otherQueue) session->startRunning();
    }
    /// What comes, in words, of frames at those times that are late but for the last.
    std::string at(std::initializer_list<std::chrono::nanoseconds> times) {
        for (const auto time : times) system->deliverFrameAt(time);
        queue->runAll();
        return std::exchange(probe->told_, {});
    }

    Platform platform;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::shared_ptr<const SimulatedFrames> frames;
    std::shared_ptr<CaptureProbe> probe;
    std::shared_ptr<SimulatedCaptureSystem> system;
    std::shared_ptr<CaptureSession> session;
    std::vector<std::shared_ptr<CaptureDeviceInput>> inputs;
    std::shared_ptr<VideoDataOutput> video;
    std::shared_ptr<AudioDataOutput> audio;
    std::shared_ptr<MetadataOutput> metadata;
};

TEST(CaptureOutputs, ALateFrameGivesWayToTheNewestWithANotice) {
    Rig rig;
    EXPECT_EQ(rig.at({0ms, 1ms, 2ms, 3ms}), "3 -0 -1 -2 ");
    EXPECT_LE(rig.system->pixelAllocations(), 2U) << "the memory of a late frame is used again";
    rig.video->setAlwaysDiscardsLateVideoFrames(false);
    EXPECT_EQ(rig.at({10ms, 11ms, 12ms, 13ms, 14ms, 15ms, 16ms, 17ms, 18ms, 19ms}), "10 11 12 13 14 15 16 17 -18 -19 ");
}

TEST(CaptureOutputs, AReplacedDelegateIsToldNothingMore) {
    Rig rig;
    const auto otherQueue = std::make_shared<ManualQueue>();
    const auto other = std::make_shared<CaptureProbe>(otherQueue);
    for (const auto time : {1ms, 2ms}) rig.system->deliverFrameAt(time);
    rig.video->setSampleBufferDelegate(other, otherQueue);
    EXPECT_EQ(rig.at({3ms}), "");
    otherQueue->runAll();
    EXPECT_EQ(other->told_, "3 ") << "a frame for another delegate does not count as late";
    // From its own delivery: must not wait for itself.
    other->onFrame = [&](const auto&) { rig.video->setSampleBufferDelegate({}, nullptr); };
    for (const auto time : {4ms, 5ms, 6ms}) rig.at({time}), otherQueue->runAll();
    EXPECT_EQ(other->told_, "3 4 ");
}

TEST(CaptureSessions, JoinOneOfEachKindOfTheirOwnSystemAndConnectWhatMatches) {
    Rig rig, elsewhere;
    LogCapture log;
    const auto inputOf = [](const Rig& of) {
        return of.system->makeDeviceInput(of.system->defaultDevice(MediaType::Video)).value();
    };
    const auto empty = rig.system->makeSession();
    EXPECT_FALSE(empty->canAddInput(*inputOf(elsewhere)));
    EXPECT_FALSE(empty->canAddOutput(*elsewhere.system->makeAudioDataOutput()));
    EXPECT_FALSE(empty->canAddOutput(*rig.video)) << "another session has it";
    EXPECT_TRUE(empty->canAddInput(*inputOf(rig)));
    EXPECT_FALSE(rig.session->canAddInput(*inputOf(rig))) << "there is one";
    EXPECT_FALSE(rig.session->canAddOutput(*rig.system->makeVideoDataOutput()));
    empty->addInput(nullptr);
    empty->addOutput(rig.video);
    EXPECT_THAT(log.take(), SizeIs(2));

    const auto connected = [&] {
        return std::vector{rig.video->connections().size(), rig.audio->connections().size()};
    };
    EXPECT_FALSE(rig.audio->connections().at(0)->isVideoOrientationSupported());
    EXPECT_THAT(connected(), ElementsAre(1, 1));
    rig.session->removeInput(rig.inputs[0]);
    EXPECT_THAT(connected(), ElementsAre(0, 1));
    EXPECT_FALSE(rig.session->hasVideoInput());
    EXPECT_EQ(rig.at({1ms}), "");
    rig.session->addInput(rig.inputs[0]);
    EXPECT_TRUE(rig.session->hasVideoInput());
    rig.session->removeOutput(rig.audio);
    EXPECT_THAT(connected(), ElementsAre(1, 0));
    rig.video->setPixelFormat(kPixelFormat420v);
    rig.video->setPixelFormat(kPixelFormat32ARGB);
    EXPECT_THAT(log.take(), SizeIs(1));
    rig.at({2ms});
    EXPECT_EQ(rig.probe->last_, (VideoFormatDescription{kPixelFormat420v, 640, 480}));

    rig.session = nullptr;
    EXPECT_THAT(rig.video->connections(), IsEmpty()) << "its session has gone";
    EXPECT_TRUE(empty->canAddOutput(*rig.video));
}

TEST(SimulatedCapture, TheTorchIsThatOfTheCameraBehind) {
    const Rig rig;
    rig.system->defaultDevice(MediaType::Video)->setTorchMode(TorchMode::On);
    EXPECT_EQ(rig.system->deviceState(CaptureDevicePosition::Back).torchMode, TorchMode::On);
    EXPECT_EQ(rig.system->deviceState(CaptureDevicePosition::Front).torchMode, TorchMode::Off);
}

TEST(SimulatedCapture, PermissionsAnswerAsSet) {
    using enum AuthorizationStatus;
    for (const auto& [status, answer, after] : {std::tuple{NotDetermined, true, Authorized},
                                                {NotDetermined, false, Denied},
                                                {Restricted, true, Restricted},
                                                {Authorized, false, Authorized}}) {
        const Rig rig;
        rig.system->setAuthorizationStatus(MediaType::Audio, status);
        rig.system->setAccessAnswer(answer);
        std::optional<bool> granted;
        rig.system->requestAccess(MediaType::Audio, [&](bool given) { granted = given; });
        EXPECT_EQ(granted, after == Authorized);
        EXPECT_EQ(rig.system->authorizationStatus(MediaType::Audio), after);
        EXPECT_EQ(bool(rig.system->makeDeviceInput(rig.system->defaultDevice(MediaType::Audio))), granted);
    }
}

TEST(SimulatedCapture, DeliversTheFrameOfTheTimeOnItsStamp) {
    Rig rig(
        R"({"at": 0, "visible": true, "center": [0.5, 0.5], "jawWidth": 0.3, "noise": 2}, {"at": 1, "jawWidth": 0.6})");
    std::shared_ptr<SampleBuffer> sample;
    rig.probe->onFrame = [&](const auto& frame) { sample = frame; };
    rig.clock->advance(7s);  // time set by hand does not run with the clock
    rig.at({500ms});
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->timing().presentationTime, 1000s + 500ms);
    EXPECT_EQ(sample->timing().duration, 33333333ns);
    EXPECT_EQ(rig.session->masterClockTime(), 1000s + 500ms);
    const auto same = rig.frames->frame(500ms, 640, 480, kPixelFormat32BGRA);
    EXPECT_EQ(std::memcmp(sample->imageBuffer()->data(), same->data(), same->layout().byteSize()), 0);
}

TEST(SimulatedCapture, FaultsSoundAndCodesOfARunningSession) {
    Rig rig(std::string(kSteady) +
            R"(, {"at": 1, "barcode": "A"}, {"at": 2, "barcode": "B"}, {"at": 3, "barcode": null})");
    LogCapture logged;
    rig.metadata->setMetadataObjectTypes({"QR"});
    rig.system->setFaults({.dropEvery = 3});
    std::string told;
    for (int i = 0; i < 6; ++i) told += rig.at({1200ms + i * 33ms});
    EXPECT_EQ(told, "1200 1233 -1266 1299 1332 -1365 ") << "no code was looked for";
    rig.metadata->setMetadataObjectTypes({"QR", kMetadataObjectTypePDF417Code});
    const std::size_t sounds = rig.probe->sounds_.size();
    rig.system->setFaults({.framesStall = true});
    EXPECT_EQ(rig.at({1500ms}), "");
    EXPECT_GT(rig.probe->sounds_.size(), sounds);
    rig.system->setFaults({});
    EXPECT_EQ(rig.at({1600ms, 2500ms}) + rig.at({2600ms}), "2500 A -1600 2600 B ") << "one code at a time";
    EXPECT_GT(rig.probe->sounds_.size(), 40U);
    EXPECT_TRUE(std::is_sorted(rig.probe->sounds_.begin(), rig.probe->sounds_.end()));

    rig.system->setFaults({.deviceLost = true});
    EXPECT_EQ(rig.at({2650ms}), "");
    EXPECT_FALSE(rig.session->isRunning());
    rig.session->startRunning();
    EXPECT_EQ(rig.system->defaultDevice(MediaType::Video), nullptr);
    rig.system->setFaults({.noCamera = true, .noMicrophone = true, .startFails = true});
    EXPECT_EQ(rig.system->defaultDevice(MediaType::Video), nullptr);
    EXPECT_EQ(rig.system->defaultDevice(MediaType::Audio), nullptr);
    rig.session->startRunning();
    EXPECT_FALSE(rig.session->isRunning());
    EXPECT_THAT(logged.take(), ElementsAre("The simulated camera was disconnected",
                                           "The simulated session could not start: the camera is disconnected",
                                           "The simulated session could not start: it is set to fail"));
    rig.system->setFaults({});
    rig.session->startRunning();
    EXPECT_EQ(rig.at({500ms}) + rig.at({3100ms}), "500 3100 ");
    rig.session->stopRunning();
    EXPECT_EQ(rig.at({3200ms}), "");
}

// By itself, on a queue of its own.
TEST(SimulatedCapture, RunsUntilItsDelegateStopsItAndWhateverManyThreadsDo) {
    std::atomic<bool> stops{true};
    const auto frameQueue = std::make_shared<SerialQueue>("frames");
    Rig rig(kSteady, {.frameRate = 240}, frameQueue);
    rig.probe->onFrame = [&](const auto&) {
        if (stops.exchange(false)) rig.session->stopRunning();
    };
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(1));
    frameQueue->drain();
    EXPECT_FALSE(rig.session->isRunning());

    const LogCapture logged;
    const std::function<void(int)> works[] = {
        [&](int) { rig.session->startRunning(); },
        [&](int) { rig.session->stopRunning(); },
        [&](int i) { rig.video->setSampleBufferDelegate(i % 2 == 0 ? nullptr : rig.probe, frameQueue); },
        [&](int i) { rig.system->setFaults({.deviceLost = i % 16 == 0, .dropEvery = i % 3}); },
        [&](int i) { i % 2 == 0 ? rig.session->removeOutput(rig.audio) : rig.session->addOutput(rig.audio); },
    };
    std::vector<std::thread> threads;
    for (const auto& work : works) {
        threads.emplace_back([&work] {
            for (int i = 0; i < 200; ++i) work(i);
        });
    }
    for (auto& thread : threads) thread.join();
    rig.system->setFaults({});
    rig.video->setSampleBufferDelegate(rig.probe, frameQueue);
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(3));
    rig.session = nullptr;  // the running session's end is the end of its thread
    frameQueue->drain();
}

TEST(SimulatedMotionManager, ReadsTheScriptUntilStopped) {
    Rig rig(R"({"at": 0, "visible": false, "rotationRate": [0, 0.5, 0]}, {"at": 1, "rotationRate": [0, 0, 0]})");
    const auto manager = rig.platform.makeMotionManager();
    std::vector<double> rates;
    manager->setDeviceMotionUpdateInterval(300ms);
    manager->startDeviceMotionUpdates(rig.queue, [&](const DeviceMotion& motion, const std::optional<Error>&) {
        rates.push_back(motion.rotationRate.y);
    });
    for (int i = 0; i < 4; ++i) rig.clock->advance(300ms), rig.queue->advance(300ms);
    manager->stopDeviceMotionUpdates();
    rig.queue->advance(10s);
    EXPECT_THAT(rates, ElementsAre(DoubleNear(0.35, 1e-6), DoubleNear(0.2, 1e-6), DoubleNear(0.05, 1e-6), 0.0));
}

TEST(SimulatedPlatform, ItsDetectorSaysWhatTheScriptSays) {
    Rig rig(std::string(kSteady) + R"(,{"at": 2, "smiling": true}, {"at": 3, "visible": false})");
    const auto detector = rig.platform.makeFaceDetector();
    const Image image{.bitmap = PixelBuffer::create(72, 128, kPixelFormat32BGRA)};
    std::vector<bool> smiles;
    for (const auto time : {1s, 2s, 3s}) {
        rig.system->scene()->setTime(time);
        for (const auto& face : detector->featuresInImage(image, true)) smiles.push_back(face.hasSmile);
    }
    EXPECT_THAT(smiles, ElementsAre(false, true)) << "and at last nobody";
    rig.system->scene()->restart();
    EXPECT_EQ(detector->featuresInImage(image, true).size(), 1U);

    const auto view = rig.platform.makeView();
    view->setFrame({0, 0, 200, 100});
    EXPECT_EQ(view->layer()->transformedMetadataObject({"PDF417", "text", {0.125, 0.25, 0.5, 0.5}}).bounds,
              (Rect{25, 25, 100, 50}));
}

}  // namespace
