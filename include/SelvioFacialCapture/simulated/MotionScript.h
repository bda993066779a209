// What happens in front of a simulated camera, over time.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/platform/MotionManager.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace selvio {

/// Where a face is in the frame.
struct FacePose {
    Point center{0.5, 0.5};  ///< midway between the jaw's ends, as fractions of the frame's width and height
    double jawWidth = 0.5;  ///< distance between the jaw's ends as a fraction of the frame's shorter side (the width of
                            ///< a portrait frame)
    double roll = 0.0;      ///< of the line between the jaw's ends, in degrees, positive clockwise as seen
    friend bool operator==(const FacePose&, const FacePose&) = default;
};

/// One moment.
struct MotionState {
    bool visible = false;              ///< false: nothing but background
    FacePose face;                     ///< meaningless while not visible
    std::optional<FacePose> second{};  ///< another face beside it
    RotationRate rotationRate{};       ///< of the device
    bool smiling = false;              ///< whether the person is to be taken as smiling, whatever the photograph shows
    double light = 1.0;                ///< brightness, 1 as photographed
    double noise = 0.0;                ///< standard deviation of the sensor noise, in steps of 1/255 of full scale
    std::optional<std::string> barcode{};  ///< text of a PDF417 code in view
};

/// Key frames over time. A value; copies are independent.
class SELVIO_EXPORT MotionScript {
public:
    /// From its JSON form, described in docs/simulated-camera.md. The error names `source` and the line or the field;
    /// nothing unknown is ignored.
    [[nodiscard]] static Expected<MotionScript> parse(std::string_view json, const std::string& source);
    [[nodiscard]] static Expected<MotionScript> load(const std::filesystem::path& path);

    /// The state at a time since the start; the first before it, the last (or, in a loop, the first again) after the
    /// end.
    [[nodiscard]] MotionState stateAt(std::chrono::nanoseconds time) const;
    /// Until the last key frame's hold is over.
    [[nodiscard]] std::chrono::nanoseconds duration() const;
    /// Whether any key frame states "smiling"; without it a host lets its own detector judge the picture.
    [[nodiscard]] bool tellsSmile() const { return tellsSmile_; }
    /// Seed of the sensor noise.
    [[nodiscard]] std::uint64_t seed() const { return seed_; }

private:
    struct KeyFrame {
        std::chrono::nanoseconds at{0};
        std::chrono::nanoseconds hold{0};
        MotionState state;
    };
    MotionScript() = default;

    std::vector<KeyFrame> keyFrames_;  // at least one; the first at 0; ascending
    bool loop_ = false;
    bool tellsSmile_ = false;
    std::uint64_t seed_ = 1;
};

}  // namespace selvio
