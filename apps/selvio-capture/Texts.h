// What the person reads, in the language of the locale.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace selvio::app {

enum class Language { English, German };

/// Texts of the program itself, beside those for the statuses.
enum class Phrase {
    TimedOut,
    Cancelled,
    FramesStopped,
    NoFrames,
    Photograph,
    Record,
    Recording,
    PressEnter,
    Source,
    Report,
    TakePicture,
    GoOn,
    Paused,
    Review,
    Accept,
    Retake,
};

/// The language that the locale's variables name: the first of LC_ALL, LC_MESSAGES and LANG that is set and not empty
/// decides. English for any but German.
[[nodiscard]] Language languageOfLocale();

/// The text for a localisation key of a status; nothing for an unknown key.
[[nodiscard]] std::optional<std::string> textForKey(std::string_view key, Language language);
/// The text for a status; its key if that has no text, empty without a key.
[[nodiscard]] std::string textForStatus(SelvioFacialCaptureStatus status, Language language);

[[nodiscard]] std::string text(Phrase phrase, Language language);

/// One line on standard error, under the program's name.
void complain(const std::string& text);

/// A stranger's text in one line, without what would steer a terminal.
[[nodiscard]] std::string printable(std::string text);

[[nodiscard]] std::string joined(const std::vector<std::string>& words, const std::string& separator);

/// The text with other words for some of its characters.
[[nodiscard]] std::string replaced(const std::string& text, const std::map<char, std::string_view>& words);

}  // namespace selvio::app
