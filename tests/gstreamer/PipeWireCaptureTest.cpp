// A real capture stack: a PipeWire of its own, on which a program publishes cameras.
#include "CaptureRig.h"

#include "platform/linux/gstreamer/PipeWireDevices.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace selvio;

/// A program that a test needs beside it, for as long as this is held.
using Child = std::shared_ptr<void>;

struct PipeWireCapture : ::testing::Test {
    void SetUp() override {
        if (!std::getenv("SELVIO_PRIVATE_PIPEWIRE")) GTEST_SKIP() << "UNAVAILABLE: no PipeWire";
    }

    /// A picture at 30 frames a second; `encoder` is an element.
    static Child publish(const std::string& name, const std::string& position, const std::string& format,
                         const std::string& pattern = "white", const std::string& encoder = "identity") {
        const std::string pid =
            outputOf("gst-launch-1.0 -q videotestsrc is-live=true pattern=" + pattern +
                     " ! video/x-raw,framerate=30/1,width=640,height=480,format=" + format + " ! " + encoder +
                     " ! pipewiresink mode=provide stream-properties=props,media.class=Video/Source,node.name=" + name +
                     ",node.description=" + name + ",api.libcamera.location=" + position + " > /dev/null & echo $!");
        return {nullptr, [pid](void*) { outputOf("kill " + pid); }};
    }
    // Waits until a device of this name is there, or is not.
    Camera find(const std::string& name, bool expected = true) {
        Camera found{system_, nullptr};
        const bool isSo = comesTrue([&] {
            const auto discovery = system_->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Unspecified);
            const auto at = std::ranges::find(discovery->devices, name, &CaptureDevice::localizedName);
            found.second = at == discovery->devices.end() ? nullptr : *at;
            return bool(found.second) == expected;
        });
        if (!isSo) throw std::runtime_error(name + " does not come or go");
        return found;
    }

    std::shared_ptr<CaptureSystem> system_ = makeGstCaptureSystem({.stallTimeout = 1s});
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
    auto webcam = publish("Webcam", "unknown", "BGRA");
    const auto builtIn = publish("BuiltIn", "front", "NV12");
    (void)find("Webcam");
    const auto camera = find("BuiltIn").second;
    EXPECT_EQ(camera->position(), CaptureDevicePosition::Front);
    EXPECT_EQ(camera->formats(), (std::vector<CaptureDeviceFormat>{{{kPixelFormat420v, 640, 480}, 30},
                                                                   {{kPixelFormat32BGRA, 640, 480}, 30}}));
    const auto backDevices = system_->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Back)->devices;
    ASSERT_EQ(backDevices.size(), 1U) << "the front camera is no answer, one without position is";
    EXPECT_EQ(backDevices[0]->localizedName(), "Webcam");

    // The person's choice comes first.
    for (const std::string name : {"Webcam", "BuiltIn"}) {
        outputOf("pw-metadata 0 default.configured.video.source '{\"name\":\"" + name + "\"}' Spa:String:JSON");
        EXPECT_TRUE(comesTrue([&] { return system_->defaultDevice(MediaType::Video)->localizedName() == name; }));
    }
    webcam.reset();
    (void)find("Webcam", false);
    (void)find("BuiltIn");
}

TEST_F(PipeWireCapture, DeliversUprightAndCroppedAndFramesMayBeHeld) {
    const Child publishers[] = {publish("Raw", "front", "NV12"), publish("Jpeg", "front", "NV12", "white", "jpegenc"),
                                publish("Snow", "front", "NV12", "snow")};
    for (const auto& [name, format] :
         {std::pair{"Raw", kPixelFormat420v}, {"Raw", kPixelFormat32BGRA}, {"Jpeg", kPixelFormat420v}})
        expectDelivery(find(name), {format, 640, 480}, VideoOrientation::Portrait, {270, 480});
    expectFramesMayBeHeld(find("Snow"));
}

TEST_F(PipeWireCapture, AnUnpluggedCameraEndsTheRun) {
    auto publisher = publish("Camera2", "front", "NV12");
    const Camera camera = find("Camera2");
    LogCapture log;
    Rig rig(camera, kPixelFormat420v);
    rig.session->startRunning();
    ASSERT_TRUE(rig.probe->waitForFrames(3));
    publisher.reset();
    EXPECT_THAT(linesAtTheEndOf(*rig.session, log), Contains(HasSubstr("Capture: stopped: ")));
    rig.session->startRunning();
    EXPECT_FALSE(rig.session->isRunning());
    EXPECT_THAT(log.take(), Contains(HasSubstr("\"Camera2\" is not there any more")));
    publisher = publish("Camera2", "front", "NV12");
    (void)find("Camera2");
    rig.capture(3);  // the same device object opens it again
}

}  // namespace
