#include "Texts.h"

#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>

namespace selvio::app {
namespace {

struct StatusText {
    std::string_view key;
    std::string_view english;
    std::string_view german;
};

constexpr std::array<StatusText, 15> kStatusTexts{{
    {"selvio_facial_capture_status_none", "Please wait", "Bitte warten"},
    {"selvio_facial_capture_status_face_not_found", "Show your face to the camera",
     "Zeigen Sie der Kamera Ihr Gesicht"},
    {"selvio_facial_capture_status_more_than_one_face", "Only one face, please", "Bitte nur ein Gesicht"},
    {"selvio_facial_capture_status_face_roll", "Hold your head upright", "Halten Sie den Kopf aufrecht"},
    {"selvio_facial_capture_status_face_pitch", "Hold your chin level", "Halten Sie das Kinn gerade"},
    {"selvio_facial_capture_status_face_yaw", "Look straight ahead", "Schauen Sie geradeaus"},
    {"selvio_facial_capture_status_move_closer", "Move closer", "Kommen Sie näher"},
    {"selvio_facial_capture_status_too_close", "Move back a little", "Gehen Sie etwas zurück"},
    {"selvio_facial_capture_status_not_centered", "Move your face to the middle",
     "Bringen Sie das Gesicht in die Mitte"},
    {"selvio_facial_capture_status_hold_still", "Hold still", "Halten Sie still"},
    {"selvio_facial_capture_status_countdown", "Stay like that", "Bleiben Sie so"},
    {"selvio_facial_capture_status_too_dark", "It is too dark", "Es ist zu dunkel"},
    {"selvio_facial_capture_status_non_uniform_light", "Find more even light", "Suchen Sie gleichmäßigeres Licht"},
    {"selvio_facial_capture_status_stop_smiling", "Stop smiling, please", "Bitte nicht lächeln"},
    {"selvio_facial_capture_status_good_frame", "Very good", "Sehr gut"},
}};

struct PhraseText {
    std::string_view english;
    std::string_view german;
};

// In the order of Phrase.
constexpr std::array<PhraseText, 16> kPhrases{{
    {"Timed out", "Die Zeit ist um"},
    {"Cancelled", "Abgebrochen"},
    {"The camera has stopped delivering frames", "Die Kamera liefert keine Bilder mehr"},
    {"The camera delivers no frames", "Die Kamera liefert keine Bilder"},
    {"Photograph", "Foto"},
    {"Record", "Datensatz"},
    {"Recording", "Aufzeichnung"},
    {"Press Enter to take the picture", "Eingabetaste: Foto aufnehmen"},
    {"Source", "Quelle"},
    {"Report", "Bericht"},
    {"Take the picture", "Foto aufnehmen"},
    {"Go on", "Weiter"},
    {"Paused", "Pause"},
    {"Do you like the picture?", "Gefällt Ihnen das Foto?"},
    {"Accept", "Übernehmen"},
    {"Retake", "Wiederholen"},
}};

}  // namespace

Language languageOfLocale() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (!value || *value == '\0') continue;
        const std::string_view locale(value);
        const auto language = locale.substr(0, locale.find_first_of("_.@"));
        return language == "de" ? Language::German : Language::English;
    }
    return Language::English;
}

std::optional<std::string> textForKey(std::string_view key, Language language) {
    const auto* entry = std::ranges::find(kStatusTexts, key, &StatusText::key);
    if (entry == kStatusTexts.end()) return std::nullopt;
    return std::string(language == Language::German ? entry->german : entry->english);
}

std::string textForStatus(SelvioFacialCaptureStatus status, Language language) {
    const auto key = SelvioFacialCaptureResults::localizeKeyFrom(status).value_or("");
    return textForKey(key, language).value_or(key);
}

std::string text(Phrase phrase, Language language) {
    const auto& texts = kPhrases.at(static_cast<std::size_t>(phrase));
    return std::string(language == Language::German ? texts.german : texts.english);
}

void complain(const std::string& text) {
    std::cerr << "selvio-capture: " << text << std::endl;
}

std::string printable(std::string text) {
    std::ranges::replace_if(
        text, [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
    // U+0080 to U+009F, in UTF-8.
    for (auto at = text.find('\xC2'); at != std::string::npos; at = text.find('\xC2', at + 1))
        if (at + 1 < text.size() && (text[at + 1] & 0xE0) == 0x80) text.replace(at, 2, "?");
    return text;
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
    std::string all;
    for (const auto& word : words) all += (&word == words.data() ? "" : separator) + word;
    return all;
}

std::string replaced(const std::string& text, const std::map<char, std::string_view>& words) {
    std::string result;
    for (const char c : text) {
        const auto word = words.find(c);
        result += word == words.end() ? std::string_view(&c, 1) : word->second;
    }
    return result;
}

}  // namespace selvio::app
