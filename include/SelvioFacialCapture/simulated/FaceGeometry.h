// Where the face lies in a still photograph.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace selvio {

/// A face in a photograph. Points are in pixels from the corner of the top left pixel, whose centre is (0.5, 0.5); left
/// and right as seen.
struct SELVIO_EXPORT FaceGeometry {
    int width = 0;   ///< of the photograph, pixels
    int height = 0;  ///< of the photograph, pixels
    Point jawLeft;   ///< where the jaw ends beside the ear
    Point jawRight;
    std::map<std::string, Point> landmarks;  ///< further points under names of the author's choice

    /// Reads the JSON form: "width", "height", "jawLeft" [x, y], "jawRight" [x, y] and, if wanted, "landmarks" {name:
    /// [x, y]}. The error names `source` and the line or the field. Unknown fields, points outside the photograph and a
    /// jaw of less than 8 pixels are errors.
    [[nodiscard]] static Expected<FaceGeometry> parse(std::string_view json, const std::string& source);
    [[nodiscard]] static Expected<FaceGeometry> load(const std::filesystem::path& path);
    /// The file beside a photograph that holds its geometry: "face.jpg" has "face.json".
    [[nodiscard]] static std::filesystem::path pathBeside(const std::filesystem::path& photograph);

    /// What is wrong with the values, if anything.
    [[nodiscard]] std::optional<Error> check() const;
};

}  // namespace selvio
