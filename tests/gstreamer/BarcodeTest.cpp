#include "CaptureRig.h"

#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

namespace selvio {
namespace {

using namespace test;

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr int kQuiet = 12;  // pixels of white around a code

constexpr const char* kText =
    "@ANSI 636000080002DL00410278ZV03190008DLDAQT64235789 DCSSAMPLE DDEN DACMICHAEL DDFN DADJOHN DCUJR DCAD DCBK DCDPH "
    "DBD06062019";

enum class Light { DarkAround, FallingOff };

/// The grey levels that the camera sees of a card with a PDF417 code, and where the code's bars are in it. `turned`
/// stands the code on its side.
std::pair<std::string, Rect> cardWith(int module, Light light, bool turned) {
    auto code = ZXing::MultiFormatWriter(ZXing::BarcodeFormat::PDF417).setMargin(0).encode(kText, 0, 0);
    if (turned) code.rotate90();
    const int width = code.width() * module;
    const int height = code.height() * module;
    const int left = (kWidth - width) / 2;
    const int top = (kHeight - height) / 2 + 40;
    std::string levels;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const bool onCard =
                x >= left - kQuiet && x < left + width + kQuiet && y >= top - kQuiet && y < top + height + kQuiet;
            const bool inCode = x >= left && x < left + width && y >= top && y < top + height;
            const bool ink = inCode && code.get((x - left) / module, (y - top) / module);
            int level = ink ? 40 : onCard || light != Light::DarkAround ? 200 : 25;
            if (light == Light::FallingOff) level = level * (kWidth - x) / kWidth;
            levels.push_back(static_cast<char>(level));
        }
    }
    return {levels, {1.0 * left, 1.0 * top, 1.0 * width, 1.0 * height}};
}

TEST(Barcode, ReadsPdf417CodesWhileFramesKeepArriving) {
    struct Case {
        const char* what;
        int module;
        Light light;
        bool turned;
        VideoOrientation orientation;
        PixelFormat format;
    };
    const Case cases[] = {
        {"dark around the card", 3, Light::DarkAround, false, VideoOrientation::LandscapeRight, kPixelFormat32BGRA},
        {"light that falls off", 2, Light::FallingOff, false, VideoOrientation::LandscapeRight, kPixelFormat420v},
        {"portrait, a code on its side", 3, Light::DarkAround, true, VideoOrientation::Portrait, kPixelFormat420v},
    };
    TemporaryDirectory directory;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto [levels, place] = cardWith(c.module, c.light, c.turned);
        const std::string file = directory.write("card.gray", levels);
        const SourceCamera camera{
            .name = "card",
            .source = "filesrc location=" + file + " blocksize=" + std::to_string(levels.size()) +
                      " ! rawvideoparse format=gray8 width=1280 height=720 ! imagefreeze is-live=true ! videoconvert",
            .rawFormat = c.format == kPixelFormat420v ? "NV12" : "BGRA"};
        const auto system = makeGstCaptureSystem({.systemDevices = false, .sources = {camera}});
        const auto devices = system->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Unspecified)->devices;
        Rig rig(system, devices.at(0), c.format, c.orientation);
        const auto output = system->makeMetadataOutput();
        output->setMetadataObjectsDelegate(rig.probe, rig.queue);
        rig.session->addOutput(output);
        output->setMetadataObjectTypes({kMetadataObjectTypePDF417Code});
        output->connections().at(0)->setVideoOrientation(c.orientation);

        rig.session->startRunning();
        ASSERT_TRUE(rig.probe->waitFor([&] { return rig.probe->objects_.size() >= 3; }))
            << "a code that stays in view is told again";
        EXPECT_TRUE(rig.probe->waitForFrames(5));
        rig.session->stopRunning();
        rig.queue->drain();
        const VideoFormatDescription frame = rig.probe->last_;
        const double cropped = (kWidth - frame.width) / 2.0;
        for (const MetadataObject& object : rig.probe->objects_) {
            EXPECT_EQ(object.type, kMetadataObjectTypePDF417Code);
            EXPECT_EQ(object.stringValue, kText);
            EXPECT_NEAR(object.bounds.x * frame.width, place.x - cropped, 20);
            EXPECT_NEAR(object.bounds.y * frame.height, place.y, 20);
            EXPECT_NEAR(object.bounds.width * frame.width, place.width, 40);
            EXPECT_NEAR(object.bounds.height * frame.height, place.height, 40);
        }
        output->setMetadataObjectsDelegate({}, nullptr);
    }
}

}  // namespace
}  // namespace selvio
