#include "VideoEncoders.h"

#include <SelvioFacialCapture/platform/Capture.h>

#include <algorithm>

namespace selvio {
namespace {

using Unit = BitRateUnit;

// Two seconds between key frames at most, so that a player can seek. No frame refers to a later one: times stay simple
// and the delay short.
const std::vector<VideoCodec>& codecs() {
    static const std::vector<VideoCodec> table = {
        {.name = kVideoCodecTypeH264,
         .caps = "video/x-h264",
         .parser = "h264parse",
         .muxedCaps = "video/x-h264,stream-format=avc,alignment=au",
         .packages = "gstreamer1.0-plugins-ugly (x264enc) or gstreamer1.0-plugins-bad (openh264enc)",
         .encoders =
             {
                 {"vah264enc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rate-control", "vbr"}, {"b-frames", "0"}, {"key-int-max", "60"}}},
                 {"vah264lpenc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rate-control", "vbr"}, {"b-frames", "0"}, {"key-int-max", "60"}}},
                 {"vaapih264enc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rate-control", "vbr"}, {"max-bframes", "0"}, {"keyframe-period", "60"}}},
                 {"nvh264enc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rc-mode", "vbr"}, {"bframes", "0"}, {"gop-size", "60"}}},
                 {"qsvh264enc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rate-control", "vbr"}, {"b-frames", "0"}, {"gop-size", "60"}}},
                 {"v4l2h264enc", true, Unit::V4l2Control, {}},
                 {"x264enc",
                  false,
                  Unit::KilobitsPerSecond,
                  {{"speed-preset", "superfast"}, {"bframes", "0"}, {"key-int-max", "60"}}},
                 {"openh264enc",
                  false,
                  Unit::BitsPerSecond,
                  {{"rate-control", "bitrate"},
                   {"complexity", "low"},
                   {"gop-size", "60"},
                   {"enable-frame-skip", "false"}}},
             }},
        {.name = kVideoCodecTypeHEVC,
         .caps = "video/x-h265",
         .parser = "h265parse",
         .muxedCaps = "video/x-h265,stream-format=hvc1,alignment=au",
         .packages = "gstreamer1.0-plugins-bad (x265enc, h265parse)",
         .encoders =
             {
                 {"vah265enc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rate-control", "vbr"}, {"b-frames", "0"}, {"key-int-max", "60"}}},
                 {"vah265lpenc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rate-control", "vbr"}, {"b-frames", "0"}, {"key-int-max", "60"}}},
                 {"vaapih265enc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rate-control", "vbr"}, {"max-bframes", "0"}, {"keyframe-period", "60"}}},
                 {"nvh265enc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rc-mode", "vbr"}, {"bframes", "0"}, {"gop-size", "60"}}},
                 {"qsvh265enc",
                  true,
                  Unit::KilobitsPerSecond,
                  {{"rate-control", "vbr"}, {"b-frames", "0"}, {"gop-size", "60"}}},
                 {"v4l2h265enc", true, Unit::V4l2Control, {}},
                 {"x265enc",
                  false,
                  Unit::KilobitsPerSecond,
                  {{"speed-preset", "ultrafast"},
                   {"key-int-max", "60"},
                   {"log-level", "error"},
                   {"option-string", "bframes=0"}}},
             }},
    };
    return table;
}

}  // namespace

const std::vector<AudioEncoder>& audioEncoders() {
    static const std::vector<AudioEncoder> table = {{"fdkaacenc", 2048}, {"avenc_aac", 1024}, {"voaacenc", 1600}};
    return table;
}

const VideoCodec* findVideoCodec(const std::string& name) {
    const auto& table = codecs();
    const auto found =
        std::find_if(table.begin(), table.end(), [&](const VideoCodec& codec) { return codec.name == name; });
    return found == table.end() ? nullptr : &*found;
}

std::vector<const VideoEncoder*> installedEncoders(const VideoCodec& codec, const ElementRank& rank) {
    std::vector<const VideoEncoder*> found;
    for (const VideoEncoder& encoder : codec.encoders) {
        if (rank(encoder.element) >= 0) found.push_back(&encoder);
    }
    const auto firstSoftware =
        std::find_if(found.begin(), found.end(), [](const VideoEncoder* encoder) { return !encoder->hardware; });
    std::stable_sort(found.begin(), firstSoftware,
                     [&](const VideoEncoder* a, const VideoEncoder* b) { return rank(a->element) > rank(b->element); });
    return found;
}

std::pair<std::string, std::string> bitRateSetting(const VideoEncoder& encoder, std::int64_t bitsPerSecond) {
    switch (encoder.unit) {
        case Unit::BitsPerSecond:
            return {"bitrate", std::to_string(bitsPerSecond)};
        case Unit::V4l2Control:
            return {"extra-controls",
                    "controls,video_bitrate_mode=0,video_gop_size=60,video_bitrate=" + std::to_string(bitsPerSecond)};
        case Unit::KilobitsPerSecond:
            break;
    }
    return {"bitrate", std::to_string((bitsPerSecond + 500) / 1000)};
}

}  // namespace selvio
