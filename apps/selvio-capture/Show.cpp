// `show`: the record in a photograph.
#include "Commands.h"
#include "Texts.h"

#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <iostream>

namespace selvio::app {

ExitCode perform(const ShowOptions& options) {
    auto bytes = LinuxFileManager().readFile(options.photograph);
    if (!bytes) {
        complain(bytes.error().localizedDescription);
        return ExitCode::UnreadableInput;
    }
    const auto source = LibjpegImageCodec().openSource(std::move(bytes.value()));
    if (!source) {
        complain(options.photograph + ": not a JPEG photograph");
        return ExitCode::UnreadableInput;
    }
    const auto exif = source->properties().exif;
    if (!exif || !exif->userComment) {
        complain(options.photograph + ": carries no data record");
        return ExitCode::UnreadableInput;
    }
    std::cout << *exif->userComment << '\n';
    return ExitCode::Success;
}

}  // namespace selvio::app
