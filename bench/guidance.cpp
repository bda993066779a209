// How often the guidance is right: photographs with known truth, judged as the component judges them.
//
//     guidance FOLDER [TABLE]      TABLE defaults to FOLDER/truth.csv
//
// The table's first line names its columns, in any order: file, faces, roll, yaw, pitch, smiling, fill. Angles in
// degrees (signs do not matter), smiling 0 or 1, fill the width of the jaw as a share of the picture's width. An empty
// cell is not known and not judged. Lines that start with # are comments.
//
// For every status: in how many photographs it should appear and did, and in how many it should not and did.
// Photographs near a limit belong to neither. Prints a table on standard error and the same as one JSON object on
// standard output. Exit codes: 2 wrong usage or table, 5 unreadable file or model.
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>

namespace {

using namespace selvio;

struct Truth {
    std::string file;
    std::map<std::string, double> known;  // by column

    [[nodiscard]] std::optional<double> value(const std::string& column) const {
        const auto found = known.find(column);
        return found == known.end() ? std::nullopt : std::optional(found->second);
    }
};

struct Answer {
    std::vector<SelvioFacialCaptureStatus> statuses;
    std::optional<bool> smiling;  ///< absent unless exactly one face was found
    bool tall = false;            ///< longer than 16:9, where the fill counts differently
};

const std::set<std::string> kColumns{"file", "faces", "roll", "yaw", "pitch", "smiling", "fill"};

std::vector<std::string> cellsOf(const std::string& line) {
    std::vector<std::string> cells;
    std::istringstream stream(line + ",");
    for (std::string cell; std::getline(stream, cell, ',');) {
        const auto first = cell.find_first_not_of(" \t\r");
        cells.push_back(first == std::string::npos ? ""
                                                   : cell.substr(first, cell.find_last_not_of(" \t\r") - first + 1));
    }
    return cells;
}

Expected<std::vector<Truth>> readTable(const std::string& path) {
    std::ifstream file(path);
    if (!file) return Error{path + " cannot be opened"};
    std::vector<std::string> columns;
    std::vector<Truth> table;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const auto cells = cellsOf(line);
        if (line.starts_with("#") ||
            std::all_of(cells.begin(), cells.end(), [](const auto& cell) { return cell.empty(); }))
            continue;
        const std::string where = path + ", line " + std::to_string(number) + ": ";
        if (columns.empty()) {
            const auto unknown =
                std::find_if(cells.begin(), cells.end(), [](const auto& cell) { return !kColumns.contains(cell); });
            if (unknown != cells.end()) return Error{where + "there is no column \"" + *unknown + "\""};
            columns = cells;
            if (std::find(columns.begin(), columns.end(), "file") == columns.end())
                return Error{where + "the column \"file\" is missing"};
            continue;
        }
        if (cells.size() > columns.size()) return Error{where + "more cells than columns"};
        Truth truth;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            if (columns[i] == "file") {
                truth.file = cells[i];
            } else if (!cells[i].empty()) {
                char* end = nullptr;
                const double value = std::strtod(cells[i].c_str(), &end);
                if (*end != '\0' || !std::isfinite(value)) return Error{where + "\"" + cells[i] + "\" is not a number"};
                truth.known[columns[i]] = std::abs(value);
            }
        }
        if (truth.file.empty()) return Error{where + "no file is named"};
        table.push_back(std::move(truth));
    }
    if (table.empty()) return Error{path + " names no photograph"};
    return table;
}

Expected<Answer> judge(const std::string& path, const Platform& platform, SequenceRequestHandler& faceSearch,
                       FaceDetector& smiles) {
    const auto picture = platform.imageLoader->loadImage(path);
    if (!picture) return picture.error();
    const auto judged = rules::judgePicture(picture.value(), faceSearch, rules::limitsOf({}));
    if (!judged) return judged.error();
    Answer answer;
    answer.statuses = judged.value().statuses;
    const auto faces = smiles.featuresInImage({.bitmap = picture.value()}, true);
    if (faces.size() == 1) answer.smiling = faces.front().hasSmile;
    const auto& size = picture.value()->layout();
    answer.tall = static_cast<double>(std::max(size.width, size.height)) / std::min(size.width, size.height) > 1.78;
    return answer;
}

/// Whether a value lies beyond a limit; nothing near it, or when it is not known.
std::optional<bool> beyond(std::optional<double> value, double limit, double near) {
    if (!value || std::abs(*value - limit) < near) return std::nullopt;
    return *value > limit;
}

/// Whether the photograph should get the status; nothing if the truth does not say, or is near the limit.
std::optional<bool> expected(SelvioFacialCaptureStatus status, const Truth& truth, bool tall) {
    // Where the neutral limits lie in degrees, found on photographs with known angles.
    constexpr double kRoll = 15.0;
    constexpr double kYaw = 25.0;
    constexpr double kPitch = 27.0;
    constexpr double kNear = 5.0;
    constexpr double kNearFill = 0.03;
    const SelvioFacialCaptureParameters parameters;
    const auto faces = truth.value("faces");
    if (!faces) return std::nullopt;
    if (status == SelvioFacialCaptureStatusFaceNotFound) return *faces == 0;
    if (status == SelvioFacialCaptureStatusMoreThanOneFace) return *faces > 1;
    if (*faces != 1) return std::nullopt;
    // The fill is measured across the screen, also of a rolled face.
    auto across = truth.value("fill");
    if (across) *across *= std::cos(truth.value("roll").value_or(0.0) * std::acos(-1.0) / 180.0) / (tall ? 1.218 : 1.0);
    switch (status) {
        case SelvioFacialCaptureStatusFaceRoll:
            return beyond(truth.value("roll"), kRoll, kNear);
        // A rolled head hides the yaw and, measured along the screen, looks pitched.
        case SelvioFacialCaptureStatusFacePitch:
            return beyond(truth.value("roll"), kRoll, kNear) == false ? beyond(truth.value("pitch"), kPitch, kNear)
                                                                      : std::nullopt;
        case SelvioFacialCaptureStatusFaceYaw:
            return beyond(truth.value("roll"), kRoll, kNear) == false ? beyond(truth.value("yaw"), kYaw, kNear)
                                                                      : std::nullopt;
        case SelvioFacialCaptureStatusMoveCloser: {
            const auto enough = beyond(across, static_cast<double>(parameters.minFill()) / 1000.0, kNearFill);
            return enough ? std::optional(!*enough) : std::nullopt;
        }
        case SelvioFacialCaptureStatusTooClose:
            return beyond(across, static_cast<double>(parameters.maxFill()) / 1000.0, kNearFill);
        case SelvioFacialCaptureStatusStopSmiling:
            return beyond(truth.value("smiling"), 0.5, 0.0);
        default:
            return std::nullopt;
    }
}

/// Whether the component said so; a smile is judged by itself.
std::optional<bool> said(SelvioFacialCaptureStatus status, const Answer& answer) {
    if (status == SelvioFacialCaptureStatusStopSmiling) return answer.smiling;
    return std::find(answer.statuses.begin(), answer.statuses.end(), status) != answer.statuses.end();
}

struct Count {
    int should = 0;
    int shouldAndDid = 0;
    int shouldNot = 0;
    int shouldNotButDid = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: guidance FOLDER [TABLE]\n");
        return 2;
    }
    const std::string folder = argv[1];
    const auto table = readTable(argc == 3 ? argv[2] : folder + "/truth.csv");
    if (!table) {
        std::fprintf(stderr, "%s\n", table.error().localizedDescription.c_str());
        return 2;
    }
    if (const auto error = waitForVisionModels()) {
        std::fprintf(stderr, "%s\n", error->localizedDescription.c_str());
        return 5;
    }
    constexpr std::pair<SelvioFacialCaptureStatus, const char*> kStatuses[] = {
        {SelvioFacialCaptureStatusFaceNotFound, "no face"},
        {SelvioFacialCaptureStatusMoreThanOneFace, "more than one face"},
        {SelvioFacialCaptureStatusFaceRoll, "roll"},
        {SelvioFacialCaptureStatusFacePitch, "pitch"},
        {SelvioFacialCaptureStatusFaceYaw, "yaw"},
        {SelvioFacialCaptureStatusMoveCloser, "move closer"},
        {SelvioFacialCaptureStatusTooClose, "too close"},
        {SelvioFacialCaptureStatusStopSmiling, "smile"},
    };
    const Platform platform = makeLinuxPlatform();
    const auto faceSearch = platform.makeSequenceRequestHandler();
    const auto smiles = platform.makeFaceDetector();
    std::map<SelvioFacialCaptureStatus, Count> counts;
    nlohmann::ordered_json photographs = nlohmann::ordered_json::array();
    for (const Truth& truth : table.value()) {
        const auto answer = judge(folder + "/" + truth.file, platform, *faceSearch, *smiles);
        if (!answer) {
            std::fprintf(stderr, "%s: %s\n", truth.file.c_str(), answer.error().localizedDescription.c_str());
            return 5;
        }
        for (const auto& [status, name] : kStatuses) {
            const auto should = expected(status, truth, answer.value().tall);
            const auto did = said(status, answer.value());
            if (!should || !did) continue;
            Count& count = counts[status];
            ++(*should ? count.should : count.shouldNot);
            if (*did) ++(*should ? count.shouldAndDid : count.shouldNotButDid);
        }
        nlohmann::ordered_json entry{{"file", truth.file}, {"statuses", answer.value().statuses}, {"smiling", nullptr}};
        if (answer.value().smiling) entry["smiling"] = *answer.value().smiling;
        photographs.push_back(std::move(entry));
    }
    nlohmann::ordered_json statuses;
    std::fprintf(stderr, "%-20s %22s %22s\n", "status", "said where it should", "where it should not");
    for (const auto& [status, name] : kStatuses) {
        const Count& count = counts[status];
        std::fprintf(stderr, "%-20s %13d of %5d %13d of %5d\n", name, count.shouldAndDid, count.should,
                     count.shouldNotButDid, count.shouldNot);
        statuses[name] = {{"status", status},
                          {"should", count.should},
                          {"shouldAndDid", count.shouldAndDid},
                          {"shouldNot", count.shouldNot},
                          {"shouldNotButDid", count.shouldNotButDid}};
    }
    const nlohmann::ordered_json report{{"statuses", statuses}, {"photographs", photographs}};
    std::printf("%s\n", report.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
    return 0;
}
