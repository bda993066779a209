// Reads recordings with an independent reader, and feeds writers with frames and sound of known content.
#pragma once

#include <SelvioFacialCapture/imaging/SampleBuffer.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <utility>

#include "support/TemporaryDirectory.h"

namespace selvio::test {

inline std::string outputOf(const std::string& command) {
    std::string output;
    std::FILE* const pipe = ::popen(command.c_str(), "r");
    char block[4096];
    for (std::size_t n = 0; pipe != nullptr && (n = std::fread(block, 1, sizeof block, pipe)) > 0;)
        output.append(block, n);
    if (pipe != nullptr) ::pclose(pipe);
    return output;
}

/// What ffprobe says of a file's streams; an empty object for a file that it cannot read.
inline nlohmann::json probe(const std::filesystem::path& file) {
    const std::string text =
        outputOf("ffprobe -v error -count_frames -show_streams -show_format -of json '" + file.string() + "'");
    return nlohmann::json::parse(text, nullptr, false);
}

inline nlohmann::json streamOfType(const nlohmann::json& media, const std::string& type) {
    for (const auto& stream : media.value("streams", nlohmann::json::array())) {
        if (stream.value("codec_type", "") == type) return stream;
    }
    return nlohmann::json::object();
}

inline double numberIn(const nlohmann::json& object, const char* key) {
    const std::string text = object.value(key, "nan");
    return text == "nan" ? std::nan("") : std::stod(text);
}

/// Where a recording turns white and where its tone begins, in seconds; -1 if it never turns white.
inline std::pair<double, double> onsets(const std::filesystem::path& file) {
    const std::string sound = outputOf("ffmpeg -v error -i '" + file.string() + "' -f s16le -ac 1 -ar 48000 -");
    std::size_t onset = 0;
    for (std::int16_t sample = 0; onset < sound.size() / 2; ++onset) {
        std::memcpy(&sample, sound.data() + onset * 2, 2);
        if (std::abs(sample) > 3000) break;
    }
    std::istringstream lines(
        outputOf("ffprobe -v error -f lavfi -i \"movie='" + file.string() +
                 "',signalstats\" -show_entries frame=pts_time:frame_tags=lavfi.signalstats.YAVG -of csv=p=0"));
    for (std::string line; std::getline(lines, line);) {
        if (std::stod(line.substr(line.find(',') + 1)) > 128)
            return {std::stod(line), static_cast<double>(onset) / 48000.0};
    }
    return {-1.0, -1.0};
}

/// A frame of one grey level.
inline std::shared_ptr<PixelBuffer> greyFrame(int width, int height, PixelFormat format, std::uint8_t level) {
    auto pixels = PixelBuffer::create(width, height, format);
    for (int plane = 0; plane < pixels->planeCount(); ++plane) {
        const auto& layout = pixels->layout().planes[static_cast<std::size_t>(plane)];
        std::memset(pixels->data(plane), plane == 0 ? level : 128,
                    layout.bytesPerRow * static_cast<std::size_t>(layout.height));
    }
    return pixels;
}

}  // namespace selvio::test
