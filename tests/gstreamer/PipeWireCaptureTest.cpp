// A real capture stack: a PipeWire of its own, on which a program publishes cameras.
#include "CaptureRig.h"
#include "support/Child.h"

#include <platform/linux/gstreamer/PipeWireDevices.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <atomic>

namespace selvio {
namespace {

using namespace test;

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
        for (std::string line = server_->readLine().value_or(""); !line.empty();
             line = server_->readLine().value_or("")) {
            const auto equals = line.find('=');
            ::setenv(line.substr(0, equals).c_str(), line.substr(equals + 1).c_str(), 1);
        }
    }
    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
        if (!unavailable_.empty()) GTEST_SKIP() << unavailable_;
    }

    static std::unique_ptr<Child> publish(const std::string& name, const std::string& position,
                                          std::vector<std::string> modes) {
        std::vector<std::string> arguments{SELVIO_VIRTUAL_CAMERA, name, position, "30"};
        arguments.insert(arguments.end(), modes.begin(), modes.end());
        return std::make_unique<Child>(arguments);
    }
    // Waits until a device of this name is there, or is not.
    std::shared_ptr<CaptureDevice> find(const std::string& name, MediaType type = MediaType::Video,
                                        bool expected = true) {
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
    ASSERT_NE(find("Some Webcam"), nullptr);
    const auto anySize = find("Any Size");
    ASSERT_NE(anySize, nullptr);
    EXPECT_EQ(anySize->formats().front(), (CaptureDeviceFormat{{kPixelFormat420v, 640, 480}, 30}));
    const auto camera = find("Front One");
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(camera->position(), CaptureDevicePosition::Front);
    const std::vector<CaptureDeviceFormat> expected{{{kPixelFormat420v, 1280, 720}, 30},
                                                    {{kPixelFormat32BGRA, 1280, 720}, 30},
                                                    {{kPixelFormat420v, 640, 480}, 30},
                                                    {{kPixelFormat32BGRA, 640, 480}, 30}};
    EXPECT_EQ(camera->formats(), expected);
    const auto backDevices = system_->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Back)->devices;
    ASSERT_EQ(backDevices.size(), 2U)
        << "the front camera is no answer, one without position is, behind the one that states it";
    EXPECT_EQ(backDevices[0]->localizedName(), "Any Size");
    EXPECT_EQ(backDevices[1]->localizedName(), "Some Webcam");

    // The person's choice comes first.
    for (const std::string name : {"Some Webcam", "Front One"}) {
        outputOf("pw-metadata 0 default.configured.video.source '{\"name\":\"" + name + "\"}' Spa:String:JSON");
        EXPECT_TRUE(comesTrue([&, wanted = name] {
            return system_->defaultDevice(MediaType::Video)->localizedName() == wanted;
        })) << name;
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
    const Delivery deliveries[] = {
        // The pattern's bar crosses the picture once a second.
        {1280, 720, kPixelFormat420v, VideoOrientation::Portrait, 404, 720, 1, 100 * 16},
        {640, 480, kPixelFormat420v, VideoOrientation::LandscapeLeft, 640, 480, 1, 100 * 16},
        {720, 1280, kPixelFormat32BGRA, VideoOrientation::LandscapeRight, 720, 404, 1, 100 * 16},
    };
    for (const Delivery& delivery : deliveries) expectDelivery(system_, camera, delivery);
}

TEST_F(PipeWireCapture, HeldFramesDoNotHoldUpTheCamera) {
    const auto publisher = publish("Camera 2", "front", {"NV12:1280x720"});
    expectFramesMayBeHeld(system_, find("Camera 2"));
}

TEST_F(PipeWireCapture, AnUnpluggedCameraEndsTheRun) {
    std::unique_ptr<Child> publisher;
    const auto plugIn = [&] {
        publisher = publish("Camera 3", "front", {"NV12:any"});
        ASSERT_NE(find("Camera 3"), nullptr);
    };
    plugIn();
    expectUnpluggingEndsTheRun(
        system_, find("Camera 3"), [&] { publisher.reset(); }, plugIn, "\"Camera 3\" is not there any more");
}

}  // namespace
}  // namespace selvio
