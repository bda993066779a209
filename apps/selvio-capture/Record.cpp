#include "Record.h"

#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <algorithm>

namespace selvio::app {
namespace {

using nlohmann::json;

struct EventText {
    std::string_view code;
    std::string_view english;
    std::string_view german;
    SelvioFacialCaptureStatus status = SelvioFacialCaptureStatusNone;  ///< whose text the person read; none: the above
};
constexpr EventText kEventTexts[] = {
    {"SA", "Capture started", "Aufnahme begonnen"},
    {"SS", "Manual capture started", "Manuelle Aufnahme begonnen"},
    {"IS", "Paused (1)", "Angehalten (1)"},
    {"HS", "Paused (2)", "Angehalten (2)"},
    {"MF", "Paused (3)", "Angehalten (3)"},
    {"RS", "Paused (4)", "Angehalten (4)"},
    {"MT", "Picture selected in automatic mode", "Foto im automatischen Modus gewählt"},
    {"ST", "Picture selected in manual mode", "Foto im manuellen Modus gewählt"},
    {"C", "Cancelled", "Abgebrochen"},
    {"FENF", "", "", SelvioFacialCaptureStatusFaceNotFound},
    {"FEMF", "", "", SelvioFacialCaptureStatusMoreThanOneFace},
    {"FER", "", "", SelvioFacialCaptureStatusFaceRoll},
    {"FEP", "", "", SelvioFacialCaptureStatusFacePitch},
    {"FEY", "", "", SelvioFacialCaptureStatusFaceYaw},
    {"FETF", "", "", SelvioFacialCaptureStatusMoveCloser},
    {"FETC", "", "", SelvioFacialCaptureStatusTooClose},
    {"FENC", "", "", SelvioFacialCaptureStatusNotCentered},
    {"FENS", "", "", SelvioFacialCaptureStatusHoldStill},
    {"FHS", "", "", SelvioFacialCaptureStatusCountdown},
    {"FESS", "", "", SelvioFacialCaptureStatusStopSmiling},
    {"FS", "", "", SelvioFacialCaptureStatusGoodFrame},
};

}  // namespace

Expected<FoundRecord> findRecord(const std::string& path) {
    auto bytes = LinuxFileManager().readFile(path);
    if (!bytes) return bytes.error();
    Bytes& file = bytes.value();
    if (!file.empty() && file.front() == '{') return FoundRecord{std::string(file.begin(), file.end()), {}};
    const auto source = LibjpegImageCodec().openSource(file);
    if (!source) return Error{path + ": neither a JPEG photograph nor a data record"};
    const auto exif = source->properties().exif;
    if (!exif || !exif->userComment) return Error{path + ": carries no data record"};
    return FoundRecord{*exif->userComment, std::move(file)};
}

std::optional<json> parseRecord(const std::string& text) {
    json record = json::parse(text, nullptr, /*allow_exceptions=*/false);
    return record.is_object() ? std::optional(std::move(record)) : std::nullopt;
}

std::vector<RecordedEvent> eventsOf(const json& record) {
    std::vector<RecordedEvent> events;
    // An entry has one member: a code, and an array that begins with the milliseconds.
    for (const json& entry : record.value("UXP", json::array())) {
        for (const auto& [code, values] : entry.items()) {
            const bool timed = values.is_array() && !values.empty() && values[0].is_number();
            events.push_back({code, timed ? std::optional(values[0].get<double>() / 1000.0) : std::nullopt});
        }
    }
    return events;
}

json parametersOf(const json& record) {
    return record.value("Parameters", json::object());
}

std::string textOfEvent(const std::string& code, Language language) {
    const auto* const known = std::ranges::find(kEventTexts, code, &EventText::code);
    if (known == std::end(kEventTexts)) return {};
    if (known->status != SelvioFacialCaptureStatusNone) return textForStatus(known->status, language);
    return std::string(language == Language::German ? known->german : known->english);
}

std::string printable(const json& value) {
    return printable(value.is_string() ? value.get<std::string>() : value.dump());
}

}  // namespace selvio::app
