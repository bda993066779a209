// Cameras and microphones on Linux, through GStreamer: Video4Linux, PipeWire, video files.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/linux/Recording.h>
#include <SelvioFacialCapture/platform/Capture.h>
#include <SelvioFacialCapture/platform/View.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace selvio {

/// A camera that is a GStreamer source of the host's choice.
struct SourceCamera {
    std::string name;                ///< also the unique id
    std::string source;              ///< as for gst-launch, ends with raw video: "videotestsrc is-live=true"
    int width = 1280;                ///< pixels
    int height = 720;                ///< pixels
    std::string rawFormat = "NV12";  ///< GStreamer's name of the format in which the source is asked to deliver
    int framesPerSecond = 30;
    CaptureDevicePosition position = CaptureDevicePosition::Unspecified;
};

struct CaptureOptions {
    /// Look for the system's own cameras and microphones.
    bool systemDevices = true;
    /// Each is a camera whose unique id and name are the path. It plays once, in real time, and is then a camera that
    /// has been unplugged.
    std::vector<std::filesystem::path> videoFiles{};
    std::vector<SourceCamera> sources{};
    /// How long a camera may take to its first frame before starting has failed.
    std::chrono::milliseconds openingTimeout{5000};
    /// How long a running camera may be silent before it counts as lost.
    std::chrono::milliseconds stallTimeout{2000};
    /// Where device nodes and LEDs are found.
    std::filesystem::path deviceDirectory = "/dev";
    std::filesystem::path ledDirectory = "/sys/class/leds";
    /// What the outputs recommend for recording follows from these.
    RecordingOptions recording{};
};

/// The capture system.
///
/// - Discovery looks anew each time, so that devices which come and go are seen; a device object stays valid when its
///   device was unplugged. A position is matched by cameras that state it, then by cameras that state none (most
///   webcams); a camera at the opposite position is left out. Extra sources and video files come first. The device
///   types are not looked at: Linux does not distinguish them.
/// - Formats: each frame size of the camera, in its own order, as 420v and as BGRA; whatever else the camera sends
///   (YUYV, Motion JPEG) is converted. A preset is a camera's frame size, upright or not; "High" is the largest up to
///   1920x1080. Until something is set, a camera delivers 1280x720 if it can, else "High".
/// - Orientation: 1 and 2 deliver an upright portrait picture: the middle 9:16 of a landscape sensor, all of an upright
///   one. Everything else delivers a landscape picture: all of a landscape sensor, the middle 16:9 of an upright one.
/// - Frames are handed on, and cropped, without copying, in the memory of the camera or of the converter. Two
///   exceptions: PipeWire takes its memory back when a camera disappears, so that the part of the picture that is
///   delivered is copied once; and a camera of which four frames are in use elsewhere delivers copies, so that it never
///   waits for its memory.
/// - Frames go to the delegate's queue; one may wait there beside the one that is being handled. When a newer one comes
///   (and late frames are discarded) it takes the place of the waiting one, for which a drop notice without a picture
///   is delivered.
/// - Times are on the system's monotonic clock.
/// - A session whose camera fails, falls silent or ends says so once in the log and no longer runs. A microphone that
///   fails is only logged.
/// - PDF417 codes are looked for beside the frames, in the newest one, about ten times a second.
/// - Authorisation is Denied where camera nodes exist and none may be opened, unless PipeWire offers a camera; else
///   Authorized. Nobody is asked.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<CaptureSystem> makeGstCaptureSystem(CaptureOptions options = {});

/// A view that shows nothing and costs nothing. Its preview layer takes sessions of the capture system above (others it
/// only holds), and places what is found in a frame as a mirror of the view's size would show it. What a person can
/// look at is in `gtk/CaptureView.h`.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<View> makeGstView();

}  // namespace selvio
