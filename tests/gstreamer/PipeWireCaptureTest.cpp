// A real capture stack: a PipeWire of its own, on which a program publishes cameras.
#include "CaptureProbe.h"
#include "support/Child.h"
#include "support/MediaProbe.h"

#include <SelvioFacialCapture/linux/Capture.h>

#include <support/LogCapture.h>

#include <platform/linux/gstreamer/PipeWireDevices.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <thread>

namespace selvio {
namespace {

using namespace test;
using std::chrono::milliseconds;
using ::testing::Contains;
using ::testing::HasSubstr;

class PipeWireCapture : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        server_ = std::make_unique<Child>(std::vector<std::string>{SELVIO_PIPEWIRE_SCRIPT, "--serve"});
        server_->killAtEnd = false;  // it ends with its input, and tidies up
        const std::string first = server_->readLine().value_or("UNAVAILABLE: the script says nothing");
        if (first != "READY") {
            unavailable_ = first;
            return;
        }
        for (std::string line = server_->readLine().value_or(""); !line.empty(); line = server_->readLine().value_or("")) {
            const auto equals = line.find('=');
            ::setenv(line.substr(0, equals).c_str(), line.substr(equals + 1).c_str(), 1);
        }
    }
    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
        if (!unavailable_.empty()) GTEST_SKIP() << unavailable_;
    }

    static std::unique_ptr<Child> publish(const std::string& name, const std::string& position, std::vector<std::string> modes) {
        std::vector<std::string> arguments{SELVIO_VIRTUAL_CAMERA, name, position, "30"};
        arguments.insert(arguments.end(), modes.begin(), modes.end());
        return std::make_unique<Child>(arguments);
    }
    static bool comesTrue(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
        }
        return true;
    }
    // Waits until a device of this name is there, or is not.
    std::shared_ptr<CaptureDevice> find(const std::string& name, MediaType type = MediaType::Video, bool expected = true) {
        std::shared_ptr<CaptureDevice> found;
        comesTrue([&] {
            found.reset();
            const auto discovery = system_->discoverDevices({}, type, CaptureDevicePosition::Unspecified);
            for (const auto& device : discovery->devices) {
                if (device->localizedName() == name) found = device;
            }
            return (found != nullptr) == expected;
        });
        return found;
    }

    static inline std::unique_ptr<Child> server_;
    static inline std::string unavailable_;
    std::shared_ptr<CaptureSystem> system_ = makeGstCaptureSystem({.stallTimeout = milliseconds(1000)});
};

TEST(PipeWireLookUp, AServerThatDoesNotAnswerIsNone) {
    const TemporaryDirectory directory;
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    (directory.path() / "silent").string().copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 8), 0);
    ::setenv("PIPEWIRE_REMOTE", address.sun_path, 1);
    LogCapture log;
    EXPECT_FALSE(findPipeWireNodes(MediaType::Audio));
    EXPECT_THAT(log.take(), Contains("Capture: PipeWire does not answer"));
    ::unsetenv("PIPEWIRE_REMOTE");
    ::close(listener);
}

TEST_F(PipeWireCapture, CamerasComeAndGo) {
    auto front = publish("Front One", "front", {"NV12:1280x720", "BGRx:640x480"});
    auto webcam = publish("Some Webcam", "unknown", {"BGRA:320x240"});
    const auto adjustable = publish("Any Size", "back", {"BGRx:any"});
    for (const auto& [name, first] : {std::pair{"Some Webcam", VideoFormatDescription{kPixelFormat420v, 320, 240}},
                                      std::pair{"Any Size", VideoFormatDescription{kPixelFormat420v, 640, 480}}}) {
        const auto device = find(name);
        ASSERT_NE(device, nullptr) << name;
        EXPECT_EQ(device->formats().front(), (CaptureDeviceFormat{first, 30}));
    }
    const auto camera = find("Front One");
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(camera->position(), CaptureDevicePosition::Front);
    EXPECT_EQ(camera->uniqueId(), "Front One");
    const std::vector<CaptureDeviceFormat> expected{{{kPixelFormat420v, 1280, 720}, 30},
                                                    {{kPixelFormat32BGRA, 1280, 720}, 30},
                                                    {{kPixelFormat420v, 640, 480}, 30},
                                                    {{kPixelFormat32BGRA, 640, 480}, 30}};
    EXPECT_EQ(camera->formats(), expected);
    EXPECT_EQ(system_->authorizationStatus(MediaType::Video), AuthorizationStatus::Authorized);

    const auto backDevices = system_->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Back)->devices;
    ASSERT_EQ(backDevices.size(), 2U) << "the front camera is no answer, one without position is, behind the one that states it";
    EXPECT_EQ(backDevices[0]->localizedName(), "Any Size");
    EXPECT_EQ(backDevices[1]->localizedName(), "Some Webcam");

    // The person's choice comes first.
    for (const std::string name : {"Some Webcam", "Front One"}) {
        outputOf("pw-metadata 0 default.configured.video.source '{\"name\":\"" + name + "\"}' Spa:String:JSON");
        EXPECT_TRUE(comesTrue([&, wanted = name] { return system_->defaultDevice(MediaType::Video)->localizedName() == wanted; })) << name;
    }
    webcam.reset();
    EXPECT_EQ(find("Some Webcam", MediaType::Video, false), nullptr);
    EXPECT_NE(find("Front One"), nullptr);
}

TEST_F(PipeWireCapture, DevicesMayGoWhileTheyAreLookedUp) {
    std::atomic<bool> done = false;
    const auto lookUp = [&] {
        while (!done) system_->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Unspecified);
    };
    std::thread one(lookUp), two(lookUp);
    for (int i = 0; i < 100; ++i) {
        const auto here = publish("Restless", "front", {"NV12:640x480"});
        EXPECT_NE(find("Restless"), nullptr);
    }
    done = true;
    one.join();
    two.join();
    EXPECT_EQ(find("Restless", MediaType::Video, false), nullptr);
}

TEST_F(PipeWireCapture, DeliversEveryFormatUprightAndCropped) {
    const auto publisher = publish("Camera 1", "front", {"NV12:1280x720", "BGRx:640x480", "BGRA:720x1280"});
    const auto camera = find("Camera 1");
    ASSERT_NE(camera, nullptr);
    struct Case {
        int width, height;  // of the sensor
        PixelFormat format;
        VideoOrientation orientation;
        VideoFormatDescription expected;
    };
    const Case cases[] = {
        {1280, 720, kPixelFormat420v, VideoOrientation::Portrait, {kPixelFormat420v, 404, 720}},
        {1280, 720, kPixelFormat32BGRA, VideoOrientation::LandscapeRight, {kPixelFormat32BGRA, 1280, 720}},
        {640, 480, kPixelFormat420v, VideoOrientation::LandscapeLeft, {kPixelFormat420v, 640, 480}},
        {720, 1280, kPixelFormat32BGRA, VideoOrientation::PortraitUpsideDown, {kPixelFormat32BGRA, 720, 1280}},
        {720, 1280, kPixelFormat32BGRA, VideoOrientation::LandscapeRight, {kPixelFormat32BGRA, 720, 404}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " as " << c.expected.width << "x" << c.expected.height);
        camera->setActiveFormat({{c.format, c.width, c.height}, 30});
        Rig rig(system_, camera, c.format);
        rig.output->connections().at(0)->setVideoOrientation(c.orientation);
        int bright = 0;
        rig.probe->onSample = [&](const auto& sample) { bright += brightPixels(*sample); };  // of the pattern's bar, which crosses the picture
        rig.session->startRunning();
        ASSERT_TRUE(rig.session->isRunning());
        EXPECT_TRUE(rig.probe->waitForFrames(32));
        rig.session->stopRunning();
        rig.queue->drain();
        EXPECT_EQ(rig.probe->lastFormat(), c.expected);
        EXPECT_GT(bright, 0);
        EXPECT_NEAR(middleDistance(rig.probe->frames_), 1.0 / 30, 0.006);
    }
}

TEST_F(PipeWireCapture, HeldFramesDoNotHoldUpTheCamera) {
    const auto publisher = publish("Camera 2", "front", {"NV12:1280x720"});
    Rig rig(system_, find("Camera 2"), kPixelFormat420v);
    std::vector<std::shared_ptr<SampleBuffer>> kept;
    rig.probe->onSample = [&](const auto& sample) { kept.push_back(sample); };
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(40)) << "more than a camera has buffers";
    rig.session->stopRunning();
    rig.queue->drain();
    std::uint64_t sum = 0;  // they stay readable when the camera has gone
    for (const auto& sample : kept) sum += sample->imageBuffer()->data(1)[0];
    EXPECT_EQ(sum, kept.size() * 0x80);
}

TEST_F(PipeWireCapture, AnUnpluggedCameraEndsTheRun) {
    auto publisher = publish("Camera 3", "front", {"NV12:any"});
    LogCapture log;
    Rig rig(system_, find("Camera 3"), kPixelFormat420v);
    rig.session->startRunning();
    ASSERT_TRUE(rig.probe->waitForFrames(3));
    publisher.reset();
    EXPECT_THAT(linesAtTheEndOf(*rig.session, log), Contains(HasSubstr("Capture: stopped: ")));
    rig.session->startRunning();
    EXPECT_THAT(log.take(), Contains(HasSubstr("\"Camera 3\" is not there any more")));
    EXPECT_FALSE(rig.session->isRunning());
    publisher = publish("Camera 3", "front", {"NV12:any"});
    ASSERT_NE(find("Camera 3"), nullptr);
    rig.session->startRunning();
    EXPECT_TRUE(rig.session->isRunning()) << "plugged in again, the same device object opens it";
}

TEST_F(PipeWireCapture, RecordsPictureAndSoundOfASession) {
    TemporaryDirectory directory;
    const std::string tone = (directory.path() / "tone.wav").string();
    outputOf("ffmpeg -v error -f lavfi -i sine=frequency=440:duration=60 -ar 48000 -ac 1 '" + tone + "'");
    const auto publisher = publish("Camera 4", "front", {"NV12:1280x720"});
    const Child microphone({"pw-cat", "-p", "--target=0", "-P", "{media.class=Audio/Source,node.name=Tone,node.description=Tone}", tone});
    const auto camera = find("Camera 4");
    const auto sound = find("Tone", MediaType::Audio);
    ASSERT_NE(camera, nullptr);
    ASSERT_NE(sound, nullptr);

    for (const auto orientation : {VideoOrientation::Portrait, VideoOrientation::LandscapeRight}) {
        SCOPED_TRACE(static_cast<int>(orientation));
        const auto file = directory.path() / ("selvio_" + std::to_string(static_cast<int>(orientation)) + ".mp4");
        const bool portrait = orientation == VideoOrientation::Portrait;
        Rig rig(system_, camera, kPixelFormat420v);
        const auto audio = system_->makeAudioDataOutput();
        rig.session->addInput(system_->makeDeviceInput(sound).value());
        audio->setSampleBufferDelegate(rig.probe, rig.queue);
        rig.session->addOutput(audio);
        rig.output->connections().at(0)->setVideoOrientation(orientation);

        const auto factory = makeGstAssetWriterFactory();
        const auto writer = factory->makeAssetWriter(file, kFileTypeMPEG4).value();
        VideoSettings settings = rig.output->recommendedVideoSettings(kFileTypeMPEG4);
        settings.width = portrait ? 360 : 640;
        settings.height = portrait ? 640 : 360;
        const auto videoInput = factory->makeVideoInput(settings);
        const auto audioInput = factory->makeAudioInput(audio->recommendedAudioSettings(kFileTypeMPEG4));
        for (const auto& input : {videoInput, audioInput}) {
            input->setExpectsMediaDataInRealTime(true);
            writer->addInput(input);
        }
        ASSERT_TRUE(writer->startWriting());
        writer->startSessionAtSourceTime(rig.session->masterClockTime());
        int appended = 0;
        std::optional<std::chrono::nanoseconds> first, last;
        rig.probe->onSample = [&](const auto& sample) {
            const auto& input = sample->audio() != nullptr ? audioInput : videoInput;
            if (!input->isReadyForMoreMediaData() || !input->appendSampleBuffer(sample) || sample->audio() != nullptr) return;
            ++appended;
            if (!first) first = sample->timing().presentationTime;
            last = sample->timing().presentationTime;
        };
        rig.session->startRunning();
        ASSERT_TRUE(rig.probe->waitForFrames(60));
        EXPECT_TRUE(rig.probe->waitFor([&] { return !rig.probe->sounds_.empty(); }));
        rig.session->stopRunning();
        rig.queue->drain();
        std::promise<void> finished;
        rig.queue->async([&] {
            videoInput->markAsFinished();
            audioInput->markAsFinished();
            writer->finishWriting([&] { finished.set_value(); });
        });
        finished.get_future().wait();
        ASSERT_EQ(writer->status(), AssetWriterStatus::Completed);

        const auto media = probe(file);
        const auto video = streamOfType(media, "video");
        const auto heard = streamOfType(media, "audio");
        EXPECT_EQ(video.value("codec_name", ""), "h264");
        EXPECT_EQ(heard.value("codec_name", ""), "aac");
        EXPECT_EQ(video.value("width", 0), settings.width);
        EXPECT_EQ(video.value("height", 0), settings.height);
        EXPECT_NEAR(std::stoi(video.value("nb_read_frames", "0")), appended, 1);
        const double span = static_cast<double>((*last - *first).count()) / 1e9 + 1.0 / 30;
        EXPECT_NEAR(numberIn(video, "duration"), span, 0.02 * span + 0.04);
        EXPECT_NEAR(numberIn(heard, "start_time") + numberIn(heard, "duration"), numberIn(video, "start_time") + numberIn(video, "duration"), 0.25);
    }
}

}  // namespace
}  // namespace selvio
