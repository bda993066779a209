// A capture's record as a page: one HTML file that needs no script, no network and no other file.
#pragma once

#include "Texts.h"

#include <SelvioFacialCapture/platform/ImageCodec.h>

#include <optional>
#include <string>

namespace selvio::app {

/// How the capture ended, what the person was told and for how long, the parameters beside their defaults, the device,
/// and the photograph if there is one. All that comes from the record is escaped. Nothing if the record is no JSON
/// object.
[[nodiscard]] std::optional<std::string> reportPage(const std::string& record, const Bytes& photograph,
                                                    Language language);

}  // namespace selvio::app
