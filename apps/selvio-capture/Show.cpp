// `show`: the record in a photograph.
#include "Commands.h"
#include "Texts.h"

#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <iostream>

namespace selvio::app {

ExitCode perform(const ShowOptions& options) {
    const auto refuse = [](const std::string& why) {
        complain(why);
        return ExitCode::UnreadableInput;
    };
    auto bytes = LinuxFileManager().readFile(options.photograph);
    if (!bytes) return refuse(bytes.error().localizedDescription);
    const auto source = LibjpegImageCodec().openSource(std::move(bytes.value()));
    if (!source) return refuse(options.photograph + ": not a JPEG photograph");
    const auto exif = source->properties().exif;
    if (!exif || !exif->userComment) return refuse(options.photograph + ": carries no data record");
    std::cout << *exif->userComment << '\n';
    return ExitCode::Success;
}

}  // namespace selvio::app
