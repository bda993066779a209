// A data record as people read it: where it is found, and what its words mean.
#pragma once

#include "Texts.h"

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/platform/ImageCodec.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace selvio::app {

struct FoundRecord {
    std::string text;  ///< as it stands there
    Bytes photograph;  ///< the JPEG that carried it; empty for a record in a file of its own
};

/// The record in a JPEG's EXIF user comment or in a file of its own. The error names the file.
[[nodiscard]] Expected<FoundRecord> findRecord(const std::string& path);

/// The record's members; nothing if the text is no JSON object.
[[nodiscard]] std::optional<nlohmann::json> parseRecord(const std::string& text);

/// One entry of the event log. What a damaged record lacks is absent.
struct RecordedEvent {
    std::string code;
    std::optional<double> seconds;  ///< since the log was started
};
[[nodiscard]] std::vector<RecordedEvent> eventsOf(const nlohmann::json& record);

/// The parameters with which the capture ran; empty if the record has none.
[[nodiscard]] nlohmann::json parametersOf(const nlohmann::json& record);

/// What an event's code means; empty for an unknown one.
[[nodiscard]] std::string textOfEvent(const std::string& code, Language language);

/// A value from a stranger's file.
[[nodiscard]] std::string printable(const nlohmann::json& value);

}  // namespace selvio::app
