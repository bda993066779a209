// Which encoder records, and with which settings.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace selvio {

/// An encoder element that is known to record well, with its settings (property name, value as text).
struct VideoEncoder {
    std::string element;
    bool hardware = false;
    std::vector<std::pair<std::string, std::string>> settings{};
    std::int64_t bitRateUnit = 1000;  ///< bits a second
    /// The property of the average bit rate, and what stands before the number.
    std::pair<std::string, std::string> bitRate{"bitrate", ""};
};

/// An AAC encoder element.
struct AudioEncoder {
    std::string element;
    std::int64_t delay = 0;  ///< frames by which what it writes lags behind what it was given
};

/// By preference.
[[nodiscard]] const std::vector<AudioEncoder>& audioEncoders();

/// A codec in the tables.
struct VideoCodec {
    std::string name;                    ///< kVideoCodecType...
    std::string parser;                  ///< element
    std::string muxedCaps;               ///< what goes into the file
    std::string packages;                ///< Debian packages with a software encoder
    std::vector<VideoEncoder> encoders;  ///< hardware first, then by preference
};

/// Null for a codec that is not recorded.
[[nodiscard]] const VideoCodec* findVideoCodec(const std::string& name);

/// The rank of an element in the registry, or a negative number if it is not installed.
using ElementRank = std::function<int(const std::string& element)>;

/// The encoders of a codec that are installed, in the order to try: hardware by rank, then software as in the table.
[[nodiscard]] std::vector<const VideoEncoder*> installedEncoders(const VideoCodec& codec, const ElementRank& rank);

}  // namespace selvio
