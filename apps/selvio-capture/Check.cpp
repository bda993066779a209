// `check`: still images, judged by the same rules.
#include "Commands.h"
#include "HostPlatform.h"
#include "RunOutput.h"

#include "analyzer/rules/FaceChecks.h"

#include <SelvioFacialCapture/SelvioFacialCapture.h>

#include <cmath>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace selvio::app {
namespace {

/// Hands out the one picture that has been loaded already.
class LoadedImage final : public ImageLoader {
public:
    explicit LoadedImage(std::shared_ptr<PixelBuffer> picture) : picture_(std::move(picture)) {}
    Expected<std::shared_ptr<PixelBuffer>> loadImage(const std::string&) const override { return picture_; }

private:
    const std::shared_ptr<PixelBuffer> picture_;
};

/// What the detector answered, which the analyzer only sums up as none, one or more.
struct Detection {
    std::size_t faces = 0;
    std::optional<Error> error;
};

class ListeningHandler final : public SequenceRequestHandler {
public:
    ListeningHandler(std::shared_ptr<SequenceRequestHandler> handler, std::shared_ptr<Detection> detection)
        : handler_(std::move(handler)), detection_(std::move(detection)) {}

    std::optional<Error> performRequests(const std::vector<std::shared_ptr<FaceLandmarksRequest>>& requests,
                                         const std::shared_ptr<const PixelBuffer>& pixelBuffer,
                                         std::uint32_t exifOrientation) override {
        detection_->error = handler_->performRequests(requests, pixelBuffer, exifOrientation);
        for (const auto& request : requests) detection_->faces = request->results() ? request->results()->size() : 0;
        return detection_->error;
    }

private:
    const std::shared_ptr<SequenceRequestHandler> handler_;
    const std::shared_ptr<Detection> detection_;
};

struct Verdict {
    std::size_t faces = 0;
    std::vector<SelvioFacialCaptureStatus> statuses;
    Rect faceRect;                                // of the one face
    std::optional<rules::FaceMeasures> measures;  // with exactly one face
};

rules::FaceMeasures measure(const SelvioFacialCaptureAnalyzer& analyzer, const SelvioFacialCaptureResults& results,
                            const SelvioFacialCaptureParameters& parameters) {
    rules::FaceChecksInput input;
    input.points = {results.faceContourPoints(), results.nosePoints(), results.outerLipsPoints()};
    input.limits = {parameters.roll(), parameters.pitch(), parameters.yaw(), parameters.minFill(),
                    parameters.maxFill()};
    input.biggerScreenSide = analyzer.biggerScreenSide();
    input.smallerScreenSide = analyzer.smallerScreenSide();
    return rules::checkFace(input).measures;
}

Expected<Verdict> judge(const std::string& path, Platform platform,
                        const std::shared_ptr<SelvioFacialCaptureParameters>& parameters) {
    const auto picture = platform.imageLoader->loadImage(path);
    if (!picture) return picture.error();
    platform.imageLoader = std::make_shared<LoadedImage>(picture.value());
    const auto detection = std::make_shared<Detection>();
    platform.makeSequenceRequestHandler = [make = platform.makeSequenceRequestHandler, detection] {
        return std::make_shared<ListeningHandler>(make(), detection);
    };

    const auto analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(parameters, platform);
    analyzer->analyzeImageAtPath(path);
    MainQueue::shared()->drain();  // a good frame is selected there
    if (detection->error) return *detection->error;
    const auto results = analyzer->results();
    Verdict verdict{detection->faces,
                    results->orderedStatuses().value_or(std::vector<SelvioFacialCaptureStatus>{}),
                    results->faceRect(),
                    {}};
    if (detection->faces == 1) verdict.measures = measure(*analyzer, *results, *parameters);
    analyzer->stop();
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
    nlohmann::ordered_json line = {
        {"image", path}, {"faces", verdict.faces}, {"statuses", verdict.statuses}, {"keys", keysOf(verdict.statuses)}};
    line["faceRect"] = nullptr;
    line["measures"] = nullptr;
    if (!verdict.measures) return line;
    const auto& rect = verdict.faceRect;
    line["faceRect"] = {number(rect.x), number(rect.y), number(rect.width), number(rect.height)};
    for (const auto& row : rowsOf(*verdict.measures)) {
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
    for (const auto& key : keysOf(verdict.statuses)) {
        text << separator << textForKey(key, language).value_or(key);
        separator = "; ";
    }
    text << '\n';
    if (!verdict.measures) return text.str();
    text << std::fixed << std::setprecision(3);
    for (const auto& row : rowsOf(*verdict.measures)) {
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

ExitCode check(const CheckOptions& options) {
    const auto platform = makeHostPlatform();
    if (const auto error = waitForModels()) {
        complain(error->localizedDescription);
        return ExitCode::UnreadableInput;
    }
    // A good face is to be reported at once and for what it is, without a countdown and whether it smiles or not.
    options.parameters->setMode(SelvioFacialCaptureModeAuto);
    options.parameters->setSelectOnSmile(false);
    options.parameters->setCountdownTime(0);

    const auto language = languageOfLocale();
    auto code = ExitCode::Success;
    for (const auto& path : options.images) {
        const auto verdict = judge(path, platform, options.parameters);
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
