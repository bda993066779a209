// Everything that the component asks of the system underneath, in one struct of ports.
#pragma once

#include <SelvioFacialCapture/base/Clock.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/Queue.h>
#include <SelvioFacialCapture/platform/AssetWriter.h>
#include <SelvioFacialCapture/platform/Capture.h>
#include <SelvioFacialCapture/platform/Device.h>
#include <SelvioFacialCapture/platform/FaceDetector.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>
#include <SelvioFacialCapture/platform/Files.h>
#include <SelvioFacialCapture/platform/ImageCodec.h>
#include <SelvioFacialCapture/platform/MotionManager.h>
#include <SelvioFacialCapture/platform/View.h>

#include <functional>
#include <memory>
#include <string>

namespace selvio {

/// The reverse-DNS prefix of the component's queue labels.
inline constexpr const char* kQueueLabelPrefix = "com.selvio.facialcapture";

/// The ports. A main object copies the struct when it is made. A null port is a service that the platform lacks: what
/// needs it does nothing. When the object is made, each port that it lacks is a line in the log:
///
///     object    missing                     consequence
///     analyzer  mainQueue, globalQueue,     none is made
///               makeSerialQueue
///               screen                      sizes have no measure: every single face passes the checks
///               makeSequenceRequestHandler  frames are kept but not judged, and only manual capture works
///               makeFaceDetector            no good frame is reported in manual mode or with `selectOnSmile`
///               imageCodec                  a success comes without an encoded picture
///               device                      the record names none, and it counts as held upright
///               makeMotionManager           nobody is told to hold still
///               imageLoader                 still images are not analysed
///     camera    captureSystem               there is no camera
///               makeSerialQueue             the camera is never configured
///               mainQueue                   the torch is not switched on
///               clock, assetWriters,        nothing is recorded
///               fileManager
///
/// Without `makeView` nothing is shown, and without `notificationCenter` nobody is notified of the application's state.
struct Platform {
    /// Services that came late in the life of platforms, which is no matter of the system's own version (see `Device`):
    /// from 11 on landmark requests and HEVC's own bit rate, from 12 on automatic capture (below, an analyzer is
    /// manual-only), from 13 on the newer layout of landmarks. Adapters have them all.
    int serviceLevel = kFullServiceLevel;
    static constexpr int kFullServiceLevel = 13;

    std::shared_ptr<const Clock> clock;
    std::shared_ptr<Queue> mainQueue;
    std::shared_ptr<Queue> globalQueue;  ///< concurrent, default priority
    std::function<std::shared_ptr<Queue>(const std::string& label)> makeSerialQueue;
    std::shared_ptr<const Device> device;
    std::shared_ptr<const Screen> screen;

    std::shared_ptr<const ImageCodec> imageCodec;
    std::shared_ptr<const ImageLoader> imageLoader;
    std::function<std::shared_ptr<SequenceRequestHandler>()> makeSequenceRequestHandler;
    std::function<std::shared_ptr<FaceDetector>()> makeFaceDetector;
    std::function<std::shared_ptr<MotionManager>()> makeMotionManager;

    std::shared_ptr<CaptureSystem> captureSystem;
    std::shared_ptr<AssetWriterFactory> assetWriters;
    std::shared_ptr<FileManager> fileManager;
    std::function<std::shared_ptr<View>()> makeView;
    std::shared_ptr<NotificationCenter> notificationCenter;
};

/// A platform with the portable parts filled in: system clock, the process's main and global queues, serial queues with
/// a thread of their own, a notification centre. Adapters add the rest.
[[nodiscard]] SELVIO_EXPORT Platform makePortablePlatform();

/// The platform used where an operation is called without one: the one set last, else the portable parts alone. A host
/// of the Linux adapters says `setDefaultPlatform(makeLinuxPlatform())` before it makes its first object. Any thread.
[[nodiscard]] SELVIO_EXPORT Platform defaultPlatform();
SELVIO_EXPORT void setDefaultPlatform(Platform platform);

}  // namespace selvio
