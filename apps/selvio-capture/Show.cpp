// `show`: the record in a photograph or a file, for people or as it is.
#include "Commands.h"
#include "Texts.h"

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>

namespace selvio::app {
namespace {

using nlohmann::json;

struct EventText {
    std::string_view code;
    std::string_view key;  ///< of the status that the person was told; empty: the texts
    std::string_view english;
    std::string_view german;
};
constexpr EventText kEventTexts[] = {
    {"SA", "", "Capture started", "Aufnahme begonnen"},
    {"SS", "", "Manual capture started", "Manuelle Aufnahme begonnen"},
    {"IS", "", "Paused (1)", "Angehalten (1)"},
    {"HS", "", "Paused (2)", "Angehalten (2)"},
    {"MF", "", "Paused (3)", "Angehalten (3)"},
    {"RS", "", "Paused (4)", "Angehalten (4)"},
    {"MT", "", "Picture selected in automatic mode", "Foto im automatischen Modus gewählt"},
    {"ST", "", "Picture selected in manual mode", "Foto im manuellen Modus gewählt"},
    {"C", "", "Cancelled", "Abgebrochen"},
    {"FENF", "selvio_facial_capture_status_face_not_found", "", ""},
    {"FEMF", "selvio_facial_capture_status_more_than_one_face", "", ""},
    {"FER", "selvio_facial_capture_status_face_roll", "", ""},
    {"FEP", "selvio_facial_capture_status_face_pitch", "", ""},
    {"FEY", "selvio_facial_capture_status_face_yaw", "", ""},
    {"FETF", "selvio_facial_capture_status_move_closer", "", ""},
    {"FETC", "selvio_facial_capture_status_too_close", "", ""},
    {"FENC", "selvio_facial_capture_status_not_centered", "", ""},
    {"FENS", "selvio_facial_capture_status_hold_still", "", ""},
    {"FHS", "selvio_facial_capture_status_countdown", "", ""},
    {"FESS", "selvio_facial_capture_status_stop_smiling", "", ""},
    {"FS", "selvio_facial_capture_status_good_frame", "", ""},
};

/// A value from a stranger's file, without what would steer a terminal.
std::string printable(const json& value) {
    std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
    return text;
}

std::string textOfEvent(const std::string& code, Language language) {
    const auto* const known = std::find_if(std::begin(kEventTexts), std::end(kEventTexts),
                                           [&](const EventText& event) { return event.code == code; });
    if (known == std::end(kEventTexts)) return {};
    if (!known->key.empty()) return textForKey(known->key, language).value_or("");
    return std::string(language == Language::German ? known->german : known->english);
}

void printMembers(const json& members, const std::map<std::string, std::string>& defaults = {}) {
    std::size_t width = 0;
    for (const auto& [key, value] : members.items()) width = std::max(width, key.size());
    for (const auto& [key, value] : members.items()) {
        std::cout << "  " << std::left << std::setw(static_cast<int>(width) + 2) << printable(key) << printable(value);
        const auto usual = defaults.find(key);
        if (usual != defaults.end() && usual->second != value) std::cout << "  (default " << usual->second << ')';
        std::cout << '\n';
    }
}

/// An entry has one member: a code, and an array that begins with the milliseconds.
void printEvent(const json& event, Language language) {
    for (const auto& [code, values] : event.items()) {
        const double seconds =
            values.is_array() && !values.empty() && values[0].is_number() ? values[0].get<double>() / 1000.0 : NAN;
        std::cout << std::right << std::fixed << std::setprecision(3) << std::setw(10) << seconds << " s  " << std::left
                  << std::setw(5) << printable(code) << textOfEvent(code, language) << '\n';
    }
}

void printForPeople(json record) {
    const Language language = languageOfLocale();
    const json parameters = record.value("Parameters", json::object());
    const json events = record.value("UXP", json::array());
    record.erase("Parameters");
    record.erase("UXP");
    printMembers(record);
    std::cout << "\nParameters\n";
    printMembers(parameters, SelvioFacialCaptureParameters().toDictionary());
    std::cout << "\nUXP\n";
    for (const json& event : events) printEvent(event, language);
}

Expected<std::string> recordText(const std::string& path) {
    auto bytes = LinuxFileManager().readFile(path);
    if (!bytes) return bytes.error();
    if (!bytes.value().empty() && bytes.value().front() == '{')
        return std::string(bytes.value().begin(), bytes.value().end());
    const auto source = LibjpegImageCodec().openSource(std::move(bytes.value()));
    if (!source) return Error{path + ": neither a JPEG photograph nor a data record"};
    const auto exif = source->properties().exif;
    if (!exif || !exif->userComment) return Error{path + ": carries no data record"};
    return *exif->userComment;
}

}  // namespace

ExitCode perform(const ShowOptions& options) {
    const auto text = recordText(options.photograph);
    if (!text) {
        complain(text.error().localizedDescription);
        return ExitCode::UnreadableInput;
    }
    if (options.json) {
        std::cout << text.value() << (text.value().ends_with('\n') ? "" : "\n");
        return ExitCode::Success;
    }
    const json record = json::parse(text.value(), nullptr, /*allow_exceptions=*/false);
    if (!record.is_object()) {
        complain(options.photograph + ": its data record is damaged; --json prints it as it is");
        return ExitCode::UnreadableInput;
    }
    printForPeople(record);
    return ExitCode::Success;
}

}  // namespace selvio::app
