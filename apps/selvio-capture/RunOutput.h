// What `run` says while it runs: JSON lines, or guidance for a person.
#pragma once

#include "Texts.h"

#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>

#include <iosfwd>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace selvio::app {

/// One call of the analyzer's delegate.
struct RunEvent {
    std::string name;   ///< of the delegate's function
    double time = 0.0;  ///< seconds since the capture was started
    std::vector<SelvioFacialCaptureStatus> statuses;
    bool recording = false;                                 ///< whether a recording is being written
    std::shared_ptr<SelvioFacialCaptureResults> results{};  ///< of the frame; null for an event without
};

/// All calls come from the main queue.
class RunOutput {
public:
    virtual ~RunOutput() = default;
    virtual void event(const RunEvent& event) = 0;
    virtual void countdown(std::int64_t secondsLeft, bool recording) = 0;
    /// How the capture ended, or where a result is.
    virtual void message(const std::string& text) = 0;
    /// Before something else is written to the terminal.
    virtual void endLine() {}
};

/// One JSON object a line for every event; nothing else. Messages go to standard error.
[[nodiscard]] std::unique_ptr<RunOutput> makeJsonOutput(std::ostream& stream);

/// Guidance in one line that changes; where the stream is no terminal, a line whenever the text changes.
/// `recordingMark` stands before the guidance while a recording is being written.
[[nodiscard]] std::unique_ptr<RunOutput> makePersonOutput(std::ostream& stream, bool terminal, Language language,
                                                          std::string recordingMark);

/// In one line; bytes that are no UTF-8, as in a path or a camera's name, are replaced.
[[nodiscard]] std::string compact(const nlohmann::ordered_json& value);

/// The localisation keys of statuses; "" for one without a key.
[[nodiscard]] std::vector<std::string> keysOf(const std::vector<SelvioFacialCaptureStatus>& statuses);

}  // namespace selvio::app
