#include <SelvioFacialCapture/linux/Capture.h>
#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/linux/Device.h>
#include <SelvioFacialCapture/linux/Files.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/linux/Sensors.h>

namespace selvio {

Platform makeLinuxPlatform(const VisionOptions& vision, const RecordingOptions& recording) {
    preloadVisionModels(vision);
    Platform platform = makePortablePlatform();
    platform.device =
        std::make_shared<LinuxDevice>([sensor = makeOrientationSensor()] { return sensor->orientation(); });
    platform.screen = std::make_shared<LinuxScreen>();
    platform.imageCodec = std::make_shared<LibjpegImageCodec>();
    platform.imageLoader = std::make_shared<JpegPngImageLoader>();
    platform.makeSequenceRequestHandler = [vision] { return makeSequenceRequestHandler(vision); };
    platform.makeFaceDetector = [vision] { return makeFaceDetector(vision); };
    platform.fileManager = std::make_shared<LinuxFileManager>();
    platform.makeMotionManager = [] { return makeIioMotionManager(); };
    platform.captureSystem = makeGstCaptureSystem({.recording = recording});
    platform.assetWriters = makeGstAssetWriterFactory(recording);
    platform.makeView = [] { return makeGstView(); };
    return platform;
}

}  // namespace selvio
