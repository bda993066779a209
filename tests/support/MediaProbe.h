// Reads recordings with an independent reader.
#pragma once

#include <cmath>
#include <cstdio>
#include <utility>

#include "support/Pixels.h"
#include "support/TemporaryDirectory.h"

namespace selvio {

inline std::string outputOf(const std::string& command) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(::popen(command.c_str(), "r"), &::pclose);
    std::string output;
    for (int c = 0; pipe && (c = std::getc(pipe.get())) != EOF;) output += static_cast<char>(c);
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

/// Where a recording that begins dark and silent becomes light, and where its tone begins, in seconds; 0: never.
inline std::pair<double, double> onsets(const std::filesystem::path& file) {
    const std::string found = outputOf("ffmpeg -v info -i '" + file.string() +
                                       "' -vf blackdetect=d=0.1 -af silencedetect=n=-25dB:d=0.1 -f null - 2>&1");
    const auto after = [&](const std::string& word) {
        const auto at = found.find(word);
        return at == std::string::npos ? 0.0 : std::stod(found.substr(at + word.size()));
    };
    return {after("black_end:"), after("silence_end:")};
}

}  // namespace selvio
