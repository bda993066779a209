// The program's commands.
#pragma once

#include "CommandLine.h"
#include "Texts.h"

#include <SelvioFacialCapture/base/Error.h>

namespace selvio::app {

/// One capture, live. Runs the main queue on the calling thread until it has ended.
[[nodiscard]] ExitCode perform(const RunOptions& options);
/// Judges every image, those in folders included, and prints the verdicts in their order, then how many there were of
/// each. Images that cannot be read do not keep the others from being judged.
[[nodiscard]] ExitCode perform(const CheckOptions& options);
/// Prints the record in the photograph's EXIF user comment, for people or as it stands there.
[[nodiscard]] ExitCode perform(const ShowOptions& options);
/// Writes a page about the capture.
[[nodiscard]] ExitCode perform(const ReportOptions& options);
/// Lists what there is to capture with.
[[nodiscard]] ExitCode perform(const DevicesOptions& options);

/// How a command ends that cannot do its work: it says why.
[[nodiscard]] inline ExitCode refuse(ExitCode code, const Error& why) {
    complain(why.localizedDescription);
    return code;
}

}  // namespace selvio::app
