// `check`: still images, judged by the same rules.
#include "Batch.h"
#include "Commands.h"
#include "RunOutput.h"

#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <unistd.h>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

namespace selvio::app {
namespace {

enum class Format { Text, Json, Csv };

/// What the threads that judge have in common.
struct Judging {
    Platform platform;
    rules::FaceLimits limits;
    Format format = Format::Text;
    Language language = Language::English;
};

Expected<rules::FacesJudgement> judge(const std::string& path, const Judging& how, SequenceRequestHandler& handler) {
    const auto picture = how.platform.imageLoader->loadImage(path);
    if (!picture) return picture.error();
    return rules::judgePicture(picture.value(), handler, how.limits);
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

nlohmann::ordered_json jsonOf(const std::string& path, const Expected<rules::FacesJudgement>& verdict) {
    if (!verdict) return {{"image", path}, {"error", verdict.error().localizedDescription}};
    const auto& judged = verdict.value();
    nlohmann::ordered_json line = {{"image", path},
                                   {"faces", judged.count},
                                   {"statuses", judged.statuses},
                                   {"keys", keysOf(judged.statuses)},
                                   {"faceRect", nullptr},
                                   {"measures", nullptr}};
    if (!judged.face) return line;
    const auto& rect = judged.face->rect;
    line["faceRect"] = {number(rect.x), number(rect.y), number(rect.width), number(rect.height)};
    for (const auto& row : rowsOf(judged.face->checked.measures)) {
        auto& entry = line["measures"][row.name];
        entry["value"] = number(row.value);
        for (const auto& [name, value] : row.limits) entry[name] = number(value);
    }
    return line;
}

std::string textOf(const std::string& path, const rules::FacesJudgement& verdict, Language language) {
    std::ostringstream text;
    std::vector<std::string> words;
    for (const auto status : verdict.statuses) words.push_back(textForStatus(status, language));
    text << printable(path) << ": " << verdict.count << (verdict.count == 1 ? " face: " : " faces: ")
         << joined(words, "; ") << '\n';
    if (!verdict.face) return text.str();
    text << std::fixed << std::setprecision(3);
    for (const auto& row : rowsOf(verdict.face->checked.measures)) {
        text << "    " << std::left << std::setw(20) << row.name << std::right << std::setw(8) << row.value;
        for (const auto& [name, value] : row.limits) text << "  " << name << ' ' << value;
        text << '\n';
    }
    return text.str();
}

/// A field as RFC 4180 wants it.
std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    return '"' + replaced(text, {{'"', "\"\""}}) + '"';
}

constexpr std::string_view kCsvHeader =
    "image,faces,statuses,x,y,width,height,roll,yaw,pitch,fill,verticalCentring,horizontalCentring,error\n";

/// What could not be measured is empty, and so is all but the error of a picture that could not be judged.
std::string csvOf(const std::string& path, const Expected<rules::FacesJudgement>& verdict) {
    if (!verdict) return csvField(path) + ",,,,,,,,,,,,," + csvField(verdict.error().localizedDescription) + '\n';
    const auto& judged = verdict.value();
    std::vector<std::string> statuses;
    for (const auto status : judged.statuses) statuses.push_back(std::to_string(status));
    std::string line = csvField(path) + ',' + std::to_string(judged.count) + ',' + joined(statuses, " ");
    if (!judged.face) return line + ",,,,,,,,,,,\n";
    const auto add = [&line](double value) { line += ',' + (std::isfinite(value) ? number(value).dump() : ""); };
    const auto& rect = judged.face->rect;
    for (const double value : {rect.x, rect.y, rect.width, rect.height}) add(value);
    for (const auto& row : rowsOf(judged.face->checked.measures)) add(row.value);
    return line + ",\n";
}

/// One judged picture, ready to be printed.
struct Answer {
    std::string text;
    std::string complaint;  ///< for standard error
    bool readable = false;
    std::vector<SelvioFacialCaptureStatus> statuses;
};

Answer answerFor(const FoundPicture& picture, const Judging& how, SequenceRequestHandler& handler) {
    const auto verdict = [&]() -> Expected<rules::FacesJudgement> {
        if (!picture.problem.empty()) return Error{picture.problem};
        try {
            return judge(picture.path, how, handler);
        } catch (const std::exception& exception) {
            return Error{picture.path + ": " + exception.what()};
        }
    }();
    Answer answer;
    answer.readable = static_cast<bool>(verdict);
    if (verdict) answer.statuses = verdict.value().statuses;
    switch (how.format) {
        case Format::Text:
            if (verdict) {
                answer.text = textOf(picture.path, verdict.value(), how.language);
            } else {
                answer.complaint = printable(verdict.error().localizedDescription);
            }
            break;
        case Format::Json:
            answer.text = compact(jsonOf(picture.path, verdict)) + '\n';
            break;
        case Format::Csv:
            answer.text = csvOf(picture.path, verdict);
            break;
    }
    return answer;
}

/// How many there were of each.
struct Tally {
    std::size_t pictures = 0;
    std::size_t unreadable = 0;
    std::map<SelvioFacialCaptureStatus, std::size_t> statuses;  ///< pictures with that status, maybe among others

    void add(const Answer& answer) {
        ++pictures;
        if (!answer.readable) ++unreadable;
        for (const auto status : std::set(answer.statuses.begin(), answer.statuses.end())) ++statuses[status];
    }
    void print(double seconds, Language language) const {
        const bool german = language == Language::German;
        const auto good = statuses.find(SelvioFacialCaptureStatusGoodFrame);
        std::ostringstream text;
        text << std::fixed << std::setprecision(1) << pictures << (german ? " Bilder in " : " pictures in ") << seconds
             << " s (" << static_cast<double>(pictures) / std::max(seconds, 0.001)
             << (german ? " je Sekunde): " : " a second): ") << (good == statuses.end() ? 0 : good->second)
             << (german ? " gut, " : " good, ") << unreadable << (german ? " unlesbar" : " unreadable") << '\n';
        for (const auto& [status, count] : statuses) {
            if (status == SelvioFacialCaptureStatusGoodFrame) continue;
            text << std::setw(8) << count << "  " << textForStatus(status, language) << '\n';
        }
        std::cerr << text.str() << std::flush;
    }
};

}  // namespace

ExitCode perform(const CheckOptions& options) {
    const Judging how{.platform = makeLinuxPlatform(),
                      .limits = rules::limitsOf(*options.parameters),
                      .format = options.csv    ? Format::Csv
                                : options.json ? Format::Json
                                               : Format::Text,
                      .language = languageOfLocale()};
    if (const auto error = waitForVisionModels()) return refuse(ExitCode::UnreadableInput, *error);
    const bool fromInput = options.images == std::vector<std::string>{"-"};
    const bool onTerminal = ::isatty(STDERR_FILENO) == 1;
    std::size_t total = 0;
    if (onTerminal && !fromInput) {
        for (PictureWalk count(options.images); count.next();) ++total;
    }
    PictureWalk walk(options.images);
    std::cin.tie(nullptr);  // the thread that reads must not flush what another one writes
    const auto nextPicture = [&]() -> std::optional<FoundPicture> {
        if (!fromInput) return walk.next();
        std::string line;
        return std::getline(std::cin, line) ? std::optional(FoundPicture{line, ""}) : std::nullopt;
    };
    const auto makeWorker = [&how]() -> std::function<Answer(const FoundPicture&)> {
        return [&how, handler = how.platform.makeSequenceRequestHandler()](const FoundPicture& picture) {
            return answerFor(picture, how, *handler);
        };
    };
    Tally tally;
    Progress progress(total > 1 ? total : 0, how.language == Language::German ? "übrig" : "left");
    const auto print = [&](const Answer& answer) {
        if (!answer.complaint.empty() || ::isatty(STDOUT_FILENO) == 1) progress.hide();
        if (!answer.complaint.empty()) complain(answer.complaint);
        std::cout << answer.text << std::flush;
        tally.add(answer);
        progress.show(tally.pictures);
        return std::cout.good();  // nobody reads the rest otherwise
    };
    if (how.format == Format::Csv && !fromInput) std::cout << kCsvHeader;
    workInOrder<FoundPicture, Answer>(options.jobs > 0 ? options.jobs : availableCores(), nextPicture, makeWorker,
                                      print);
    progress.hide();
    if (tally.pictures != 1) tally.print(progress.seconds(), how.language);
    return tally.unreadable > 0 ? ExitCode::UnreadableInput : ExitCode::Success;
}

}  // namespace selvio::app
