// Photographs with a data record, and records on their own: the codec, and what `show` prints of them.
#include "Commands.h"
#include "FuzzSupport.h"

#include <SelvioFacialCapture/linux/Codec.h>

void selvio::check(std::string_view input) {
    constexpr std::size_t kLargest = 1 << 16;  // decoding more takes its time and shows nothing new
    const LibjpegImageCodec codec;
    const auto source = input.size() <= kLargest ? codec.openSource({input.begin(), input.end()}) : nullptr;
    ImageProperties properties = source ? source->properties() : ImageProperties();
    if (!properties.exif) properties.exif.emplace();
    properties.exif->userComment = R"({"Version":1})";
    if (const auto written = source ? codec.encodeFromSource(*source, properties) : std::nullopt) {
        const auto again = codec.openSource(*written);
        require(again && again->properties().exif, "what was written has its EXIF segment");
        require(again->properties().exif->userComment == properties.exif->userComment,
                "a record is read as it was written");
    }
    const std::string photograph = fileWith(input);
    for (const bool json : {false, true}) {
        app::ExitCode code{};
        const std::string printed =
            printedBy([&] { code = app::perform(app::ShowOptions{.photograph = photograph, .json = json}); });
        require(!printed.empty(), "it says something");
        require(json || printed.find('\x1b') == std::string::npos, "a record does not steer the terminal");
        require(code == app::ExitCode::Success || code == app::ExitCode::UnreadableInput, "it ends in order");
    }
}
