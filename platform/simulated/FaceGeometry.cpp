#include <SelvioFacialCapture/simulated/FaceGeometry.h>

#include "platform/simulated/StrictJson.h"

#include <cmath>

namespace selvio {
namespace {

constexpr int kLongestSide = 32767;
constexpr double kShortestJaw = 8.0;  // pixels

}  // namespace

Expected<FaceGeometry> FaceGeometry::parse(std::string_view json, const std::string& source) {
    FaceGeometry geometry;
    const auto error = strictjson::read(json, source, [&](strictjson::ObjectReader& reader) {
        for (const char* name : {"width", "height", "jawLeft", "jawRight"}) reader.require(name);
        geometry.width = static_cast<int>(*reader.integer("width", 1, kLongestSide));
        geometry.height = static_cast<int>(*reader.integer("height", 1, kLongestSide));
        geometry.jawLeft = *reader.point("jawLeft", 0, kLongestSide);
        geometry.jawRight = *reader.point("jawRight", 0, kLongestSide);
        const auto* const landmarks = reader.field("landmarks");
        if (!landmarks) return;
        strictjson::ObjectReader names(*landmarks, "landmarks");
        for (const auto& [name, ignored] : landmarks->items())
            geometry.landmarks.emplace(name, *names.point(name, 0, kLongestSide));
    });
    if (error) return *error;
    if (const auto fault = geometry.check()) return Error{source + ": " + fault->localizedDescription};
    return geometry;
}

Expected<FaceGeometry> FaceGeometry::load(const std::filesystem::path& path) {
    const auto text = strictjson::readText(path);
    return text ? parse(text.value(), path.string()) : text.error();
}

std::filesystem::path FaceGeometry::pathBeside(const std::filesystem::path& photograph) {
    return std::filesystem::path(photograph).replace_extension(".json");
}

std::optional<Error> FaceGeometry::check() const {
    const auto inside = [this](Point p) { return p.x >= 0 && p.x <= width && p.y >= 0 && p.y <= height; };
    if (!inside(jawLeft)) return Error{"jawLeft lies outside the photograph"};
    if (!inside(jawRight)) return Error{"jawRight lies outside the photograph"};
    for (const auto& [name, point] : landmarks) {
        if (!inside(point)) return Error{"landmarks." + name + " lies outside the photograph"};
    }
    if (jawLeft.x >= jawRight.x) return Error{"jawLeft must lie to the left of jawRight as seen in the photograph"};
    if (std::hypot(jawRight.x - jawLeft.x, jawRight.y - jawLeft.y) < kShortestJaw)
        return Error{"the jaw is less than 8 pixels wide"};
    return std::nullopt;
}

}  // namespace selvio
