#include "CaptureRig.h"

#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

namespace selvio {
namespace {

using namespace test;

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

constexpr const char* kText =
    "@ANSI 636000080002DL00410278ZV03190008DLDAQT64235789 DCSSAMPLE DDEN DACMICHAEL DDFN DADJOHN DCUJR DCAD DCBK DCDPH "
    "DBD06062019";

/// The grey levels that the camera sees of a card with a PDF417 code in a light that falls off, and where the code's
/// bars are in it. `turned` stands the code on its side.
std::pair<std::string, Rect> cardWith(int module, bool turned) {
    auto code = ZXing::MultiFormatWriter(ZXing::BarcodeFormat::PDF417).setMargin(0).encode(kText, 0, 0);
    if (turned) code.rotate90();
    const int left = (kWidth - code.width() * module) / 2;
    const int top = (kHeight - code.height() * module) / 2 + 40;
    std::string levels;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const int column = (x - left) / module, row = (y - top) / module;
            const bool ink =
                x >= left && column < code.width() && y >= top && row < code.height() && code.get(column, row);
            levels.push_back(static_cast<char>((ink ? 40 : 200) * (kWidth - x) / kWidth));
        }
    }
    return {levels, {1.0 * left, 1.0 * top, 1.0 * code.width() * module, 1.0 * code.height() * module}};
}

TEST(Barcode, ReadsPdf417CodesWhileFramesKeepArriving) {
    TemporaryDirectory directory;
    for (const bool portrait : {false, true}) {
        SCOPED_TRACE(portrait);
        const auto [levels, place] = cardWith(portrait ? 3 : 2, portrait);
        const auto orientation = portrait ? VideoOrientation::Portrait : VideoOrientation::LandscapeRight;
        const std::string file = directory.write("card.gray", levels);
        const SourceCamera camera{
            .name = "card",
            .source = "filesrc location=" + file + " blocksize=" + std::to_string(levels.size()) +
                      " ! rawvideoparse format=gray8 width=1280 height=720 ! imagefreeze is-live=true ! videoconvert",
            .rawFormat = portrait ? "NV12" : "BGRA"};
        const auto system = makeGstCaptureSystem({.systemDevices = false, .sources = {camera}});
        Rig rig(system, system->defaultDevice(MediaType::Video), portrait ? kPixelFormat420v : kPixelFormat32BGRA,
                orientation);
        const auto output = system->makeMetadataOutput();
        output->setMetadataObjectsDelegate(rig.probe, rig.queue);
        rig.session->addOutput(output);
        output->setMetadataObjectTypes({kMetadataObjectTypePDF417Code});
        output->connections().at(0)->setVideoOrientation(orientation);

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
