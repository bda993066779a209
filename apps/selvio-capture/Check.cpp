// `check`: still images, judged by the same rules.
#include "Commands.h"
#include "RunOutput.h"

#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <cmath>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace selvio::app {
namespace {

constexpr std::uint32_t kUprightMirrored = 5;  // the EXIF orientation in which the rules read a portrait

struct Verdict {
    std::size_t faces = 0;
    rules::FacesJudgement judged;
};

Expected<Verdict> judge(const std::string& path, const Platform& platform, const rules::FaceLimits& limits) {
    const auto picture = platform.imageLoader->loadImage(path);
    if (!picture) return picture.error();
    const PixelBuffer& pixels = *picture.value();
    const Size size{.width = static_cast<double>(pixels.width()), .height = static_cast<double>(pixels.height())};
    rules::PreviewGeometry screen;  // the whole picture
    screen.setScreen(size);
    screen.setResolution(size);

    const auto found = platform.makeSequenceRequestHandler()->perform(
        {.pixelBuffer = picture.value(), .exifOrientation = kUprightMirrored, .isStillImage = true});
    if (!found) return found.error();
    if (found.value().error) return *found.value().error;
    const auto& faces = found.value().observations;
    Verdict verdict{faces.size(), rules::judgeFaces(faces, screen, limits, /*shouldHoldStill=*/false)};
    if (verdict.judged.statuses.empty()) verdict.judged.statuses = {SelvioFacialCaptureStatusGoodFrame};
    return verdict;
}

/// One measure and the limits that it is held against; a limit's name is its member in the JSON form.
struct Row {
    const char* name;
    double value;
    std::vector<std::pair<const char*, double>> limits;
};

std::vector<Row> rowsOf(const rules::FaceMeasures& m) {
    return {{"roll", m.rollRatio, {{"limit", m.rollLimit}}},
            {"yaw", m.yawRatio, {{"limit", m.yawLimit}}},
            {"pitch", m.pitchRatio, {{"low", m.pitchLow}, {"high", m.pitchHigh}}},
            {"fill", m.horizontalFill, {{"min", m.minFill}, {"max", m.maxFill}}},
            {"verticalCentring", m.verticalRatio, {{"limit", m.verticalLimit}}},
            {"horizontalCentring", m.horizontalMargin, {{"limit", m.marginLimit}}}};
}

/// JSON has no infinity: what could not be measured is null.
nlohmann::ordered_json number(double value) {
    return std::isfinite(value) ? nlohmann::ordered_json(value) : nlohmann::ordered_json();
}

nlohmann::ordered_json jsonOf(const std::string& path, const Verdict& verdict) {
    nlohmann::ordered_json line = {{"image", path},
                                   {"faces", verdict.faces},
                                   {"statuses", verdict.judged.statuses},
                                   {"keys", keysOf(verdict.judged.statuses)}};
    line["faceRect"] = nullptr;
    line["measures"] = nullptr;
    if (!verdict.judged.face) return line;
    const auto& rect = verdict.judged.face->rect;
    line["faceRect"] = {number(rect.x), number(rect.y), number(rect.width), number(rect.height)};
    for (const auto& row : rowsOf(verdict.judged.face->checked.measures)) {
        auto& entry = line["measures"][row.name];
        entry["value"] = number(row.value);
        for (const auto& [name, value] : row.limits) entry[name] = number(value);
    }
    return line;
}

std::string textOf(const std::string& path, const Verdict& verdict, Language language) {
    std::ostringstream text;
    text << path << ": " << verdict.faces << (verdict.faces == 1 ? " face: " : " faces: ");
    const char* separator = "";
    for (const auto& key : keysOf(verdict.judged.statuses)) {
        text << separator << textForKey(key, language).value_or(key);
        separator = "; ";
    }
    text << '\n';
    if (!verdict.judged.face) return text.str();
    text << std::fixed << std::setprecision(3);
    for (const auto& row : rowsOf(verdict.judged.face->checked.measures)) {
        text << "    " << std::left << std::setw(20) << row.name << std::right << std::setw(8) << row.value;
        for (const auto& [name, value] : row.limits) text << "  " << name << ' ' << value;
        text << '\n';
    }
    return text.str();
}

std::string compact(const nlohmann::ordered_json& line) {
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);  // a path need not be UTF-8
}

}  // namespace

ExitCode perform(const CheckOptions& options) {
    const auto platform = makeLinuxPlatform();
    if (const auto error = waitForVisionModels()) {
        complain(error->localizedDescription);
        return ExitCode::UnreadableInput;
    }
    const auto limits = rules::limitsOf(*options.parameters);
    const auto language = languageOfLocale();
    auto code = ExitCode::Success;
    for (const auto& path : options.images) {
        const auto verdict = judge(path, platform, limits);
        if (!verdict) {
            code = ExitCode::UnreadableInput;
            if (!options.json) complain(verdict.error().localizedDescription);
        }
        if (options.json) {
            std::cout << compact(verdict ? jsonOf(path, verdict.value())
                                         : nlohmann::ordered_json{{"image", path},
                                                                  {"error", verdict.error().localizedDescription}})
                      << std::endl;
        } else if (verdict) {
            std::cout << textOf(path, verdict.value(), language) << std::flush;
        }
    }
    return code;
}

}  // namespace selvio::app
