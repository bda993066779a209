#include "platform/linux/gstreamer/VideoEncoders.h"

#include <SelvioFacialCapture/platform/Capture.h>

#include <algorithm>
#include <iterator>

namespace selvio {
namespace {

// The encoders of a stream, "h264" or "h265": those in hardware, whose names and settings differ by the stream alone,
// and the given ones in software. Two seconds between key frames at most, so that a player can seek. No frame refers to
// a later one: times stay simple and the delay short.
std::vector<VideoEncoder> encodersOf(const std::string& stream, std::vector<VideoEncoder> inSoftware) {
    using Settings = decltype(VideoEncoder::settings);
    const Settings va{{"rate-control", "vbr"}, {"b-frames", "0"}, {"key-int-max", "60"}};
    const Settings vaapi{{"rate-control", "vbr"}, {"max-bframes", "0"}, {"keyframe-period", "60"}};
    const Settings nv{{"rc-mode", "vbr"}, {"bframes", "0"}, {"gop-size", "60"}};
    const Settings qsv{{"rate-control", "vbr"}, {"b-frames", "0"}, {"gop-size", "60"}};
    std::vector<VideoEncoder> encoders{
        {"va" + stream + "enc", true, va},
        {"va" + stream + "lpenc", true, va},
        {"vaapi" + stream + "enc", true, vaapi},
        {"nv" + stream + "enc", true, nv},
        {"qsv" + stream + "enc", true, qsv},
        {"v4l2" + stream + "enc",
         true,
         {},
         1,
         {"extra-controls", "controls,video_bitrate_mode=0,video_gop_size=60,video_bitrate="}}};
    std::ranges::move(inSoftware, std::back_inserter(encoders));
    return encoders;
}

const std::vector<VideoCodec>& codecs() {
    static const std::vector<VideoCodec> table = {
        {.name = kVideoCodecTypeH264,
         .parser = "h264parse",
         .muxedCaps = "video/x-h264,stream-format=avc,alignment=au",
         .packages = "gstreamer1.0-plugins-ugly (x264enc) or gstreamer1.0-plugins-bad (openh264enc)",
         .encoders =
             encodersOf("h264", {{.element = "x264enc",
                                  .settings = {{"speed-preset", "superfast"}, {"bframes", "0"}, {"key-int-max", "60"}}},
                                 {.element = "openh264enc",
                                  .settings = {{"rate-control", "bitrate"},
                                               {"complexity", "low"},
                                               {"gop-size", "60"},
                                               {"enable-frame-skip", "false"}},
                                  .bitRateUnit = 1}})},
        {.name = kVideoCodecTypeHEVC,
         .parser = "h265parse",
         .muxedCaps = "video/x-h265,stream-format=hvc1,alignment=au",
         .packages = "gstreamer1.0-plugins-bad (x265enc, h265parse)",
         .encoders = encodersOf("h265", {{.element = "x265enc",
                                          .settings = {{"speed-preset", "ultrafast"},
                                                       {"key-int-max", "60"},
                                                       {"log-level", "error"},
                                                       {"option-string", "bframes=0"}}}})},
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
    const auto found = std::ranges::find(table, name, &VideoCodec::name);
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

}  // namespace selvio
