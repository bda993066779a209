// Reads recordings with an independent reader, and feeds writers with frames of known content.
#pragma once

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <utility>

#include "support/Pixels.h"
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

/// What ffprobe says of a recording's "v"ideo or "a"udio: values between commas, in its own order. Empty for a file
/// that it cannot read.
inline std::string streamOf(const std::filesystem::path& file, const std::string& kind, const std::string& entries) {
    std::string line = outputOf("ffprobe -v error -count_frames -select_streams " + kind +
                                " -show_entries stream=" + entries + " -of csv=p=0 '" + file.string() + "'");
    if (line.ends_with('\n')) line.pop_back();
    return line;
}

/// NaN where there is no such stream.
inline double secondsOf(const std::filesystem::path& file, const std::string& kind) {
    const std::string text = streamOf(file, kind, "duration");
    return text.empty() ? std::nan("") : std::stod(text);
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
    return painted(width, height, format, [&](std::uint8_t* sample, int, int, int plane) {
        std::memset(sample, plane == 0 ? level : 128, format == kPixelFormat420v ? plane + 1U : 4U);
    });
}

}  // namespace selvio::test
