// A whole capture of the program on fakes, each queue run by hand.
#include "Session.h"
#include "support/FakeCapture.h"
#include "support/FakeDevice.h"
#include "support/FakeFileManager.h"
#include "support/FakeImageCodec.h"
#include "support/FakeVision.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ManualQueue.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>

namespace selvio::app {
namespace {

using namespace std::chrono_literals;

struct Output final : RunOutput {
    void event(const RunEvent& event) override { lines.push_back(event.name + (event.recording ? " [REC]" : "")); }
    void countdown(std::int64_t, bool) override {}
    void message(const std::string& text) override { lines.push_back(text); }
    std::vector<std::string> lines;
};

/// The program in manual mode with nobody in view.
struct Rig {
    explicit Rig(bool record, bool attended = false) {
        options.attended = options.accept = attended;  // what nobody is asked about waits as well
        options.out = directory.path();
        options.parameters->setMode(SelvioFacialCaptureModeManual);
        options.parameters->cameraParameters()->setRecordVideo(record);

        Platform platform = makePortablePlatform();
        platform.clock = std::make_shared<ManualClock>();
        platform.mainQueue = main;
        platform.makeSerialQueue = [this](const std::string& label) {
            return queues.emplace_back(std::make_shared<ManualQueue>(label));
        };
        platform.screen = std::make_shared<FakeScreen>();
        platform.imageCodec = std::make_shared<FakeImageCodec>();
        platform.makeSequenceRequestHandler = [] { return std::make_shared<FakeSequenceRequestHandler>(); };
        platform.captureSystem = camera;
        platform.assetWriters = std::make_shared<FakeAssetWriterFactory>(capture);
        platform.fileManager = std::make_shared<FakeFileManager>();
        session = Session::make(platform, options, {}, output, Language::English, [this] { ++ended; });
        (void)log.take();  // the ports that are missing
    }
    /// One block of each queue, so many times or until none is left.
    void run(int steps = INT_MAX) {
        for (bool any = true; any && steps > 0; --steps) {
            any = main->runNext();
            for (std::size_t i = 0; i < queues.size(); ++i) any = queues[i]->runNext() || any;
        }
    }
    /// The clock of the fake session stands at 42 s.
    void deliverFrame(std::chrono::seconds time) {
        camera->video->deliver(SampleBuffer::makeVideo(PixelBuffer::create(72, 128, kPixelFormat420v), {time, {}}));
    }
    void sendFrame() { deliverFrame(42s), run(); }
    [[nodiscard]] bool has(const char* file) const { return std::filesystem::exists(directory.path() / file); }

    LogCapture log;
    const TemporaryDirectory directory;
    const std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>("main");
    std::vector<std::shared_ptr<ManualQueue>> queues;
    const std::shared_ptr<FakeCaptureScript> capture = std::make_shared<FakeCaptureScript>();
    const std::shared_ptr<FakeCaptureSystem> camera = std::make_shared<FakeCaptureSystem>(capture);
    RunOptions options;
    Output output;
    int ended = 0;
    std::shared_ptr<Session> session;
};

TEST(Session, IsCancelledAtAnyMomentOfItsStart) {
    std::ptrdiff_t startedWriting = 0;
    for (const bool record : {false, true}) {
        for (int steps = -1; steps < 8; ++steps) {
            SCOPED_TRACE((record ? "recording, step " : "step ") + std::to_string(steps));
            Rig rig(record);
            if (steps >= 0) rig.session->begin();
            rig.run(steps);
            rig.session->takePicture();
            if (rig.camera->video) rig.deliverFrame(41s);  // before the recording
            rig.capture->duringStop = [&rig] {
                rig.deliverFrame(43s);
                for (const auto& queue : rig.queues)
                    if (queue->label().ends_with("videoDataOutputQueue")) queue->runAll();
            };
            testing::internal::CaptureStderr();
            rig.session->cancelByPerson();
            rig.session->cancelByPerson();
            rig.session->takePicture();
            if (steps < 0) rig.session->begin();
            rig.run();
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "")
                << "no frame came in time, so that no recording failed";
            EXPECT_EQ(rig.ended, 1);
            EXPECT_EQ(rig.session->exitCode(), ExitCode::NotCaptured);
            EXPECT_THAT(rig.output.lines, testing::ElementsAre("Cancelled", testing::StartsWith("detectionCancelled"),
                                                               testing::StartsWith("Record: ")));
            EXPECT_THAT(rig.log.take(), testing::IsEmpty());
            const auto calls = rig.capture->calls.take();
            const auto started = std::ranges::count(calls, "start");
            EXPECT_EQ(std::ranges::count(calls, "cancel"), started);
            startedWriting += started;
        }
    }
    EXPECT_GT(startedWriting, 0) << "the steps reach as far as a recording that has begun";
}

TEST(Session, SaysWhyThereIsNoCamera) {
    for (const auto& [refused, reason] :
         {std::pair("access", "no access to the camera"), std::pair("camera device", "the camera could not be opened"),
          std::pair("run", "the camera could not be started")}) {
        Rig rig(false);
        rig.capture->refused = {refused};
        if (!rig.capture->allows("access")) rig.capture->authorization = AuthorizationStatus::Denied;
        rig.session->begin();
        testing::internal::CaptureStderr();
        rig.run();
        EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr(reason));
        EXPECT_EQ(std::pair(rig.session->exitCode(), rig.ended), std::pair(ExitCode::NoCamera, 1));
    }
}

TEST(Session, MarksWhatItReportsOnlyWhileItRecords) {
    for (const bool record : {false, true}) {
        Rig rig(record);
        rig.session->begin();
        rig.run();
        rig.capture->finishesAtOnce = true;
        rig.sendFrame();
        rig.session->takePicture();
        rig.sendFrame();
        const std::string mark = record ? " [REC]" : "";
        rig.output.lines.resize(2);
        EXPECT_THAT(rig.output.lines, testing::ElementsAre("detectionResults" + mark, "detectionSuccess" + mark));
        EXPECT_TRUE(rig.has("selfie.jpg"));
        EXPECT_EQ(rig.ended, record ? 0 : 1) << "the recording is waited for";
    }
}

TEST(Session, KeepsThePictureThatWasAskedForEarlyUntilItIsWantedAndSaysIfThatFails) {
    for (const bool becomesUnattended : {false, true}) {
        Rig rig(false, true);
        rig.session->begin();
        rig.session->takePicture();  // before the camera runs
        rig.run();
        if (becomesUnattended) rig.session->becomeUnattended();
        rig.sendFrame();
        EXPECT_EQ(rig.output.lines.at(0), "detectionSuccess");
        EXPECT_EQ(rig.has("selfie.jpg"), becomesUnattended);
        std::filesystem::remove_all(rig.directory.path());
        testing::internal::CaptureStderr();
        rig.session->writeResults();
        EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), becomesUnattended);
        EXPECT_EQ(rig.session->exitCode(), becomesUnattended ? ExitCode::Success : ExitCode::NotWritten);
    }
}

TEST(Session, JudgesNothingWhilePausedAndHoldsTheResultsBackForAPerson) {
    Rig rig(false, true);
    EXPECT_FALSE(rig.session->setPaused(true)) << "the camera does not run yet";
    rig.session->begin();
    rig.run();
    rig.main->advance(15s);
    EXPECT_TRUE(rig.session->setPaused(true));
    EXPECT_FALSE(rig.session->setPaused(true));
    rig.sendFrame();
    rig.main->advance(15s);  // the time-out is 20 s
    EXPECT_THAT(rig.output.lines, testing::IsEmpty());
    EXPECT_TRUE(rig.session->setPaused(false));
    rig.sendFrame();
    rig.main->advance(15s);
    rig.session->takePicture();
    rig.sendFrame();
    EXPECT_THAT(rig.output.lines, testing::ElementsAre("detectionResults", "detectionSuccess"));
    EXPECT_EQ(rig.ended, 1);
    EXPECT_FALSE(rig.has("selfie.jpg") || rig.has("record.json"));
    rig.session->writeResults(true);
    EXPECT_TRUE(!rig.has("selfie.jpg") && rig.has("record.json"));
    rig.main->advance(1h);
    EXPECT_EQ(rig.ended, 1) << "nobody gives up on a session that has ended";
}

}  // namespace
}  // namespace selvio::app
