// Photographs with a data record, and records on their own: the codec, and what `show` prints of them.
#include "Commands.h"
#include "FuzzSupport.h"

#include <SelvioFacialCapture/linux/Codec.h>

using namespace selvio;
using selvio::test::require;

namespace {

void rewriteWithRecord(const std::uint8_t* data, std::size_t size) {
    const LibjpegImageCodec codec;
    const auto source = codec.openSource(Bytes(data, data + size));
    if (!source) return;
    ImageProperties properties = source->properties();
    if (!properties.exif) properties.exif.emplace();
    properties.exif->userComment = R"({"Version":1})";
    const auto written = codec.encodeFromSource(*source, properties);
    if (!written) return;
    const auto again = codec.openSource(*written);
    require(again && again->properties().exif, "what was written has its EXIF segment");
    require(again->properties().exif->userComment == properties.exif->userComment,
            "a record is read as it was written");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kLargest = 1 << 16;  // decoding more takes its time and shows nothing new
    if (size <= kLargest) rewriteWithRecord(data, size);
    const test::InputFile file(data, size);
    for (const bool json : {false, true}) {
        app::ExitCode code{};
        const std::string printed =
            test::printedBy([&] { code = app::perform(app::ShowOptions{.photograph = file.path(), .json = json}); });
        require(!printed.empty(), "it says something");
        require(json || printed.find('\x1b') == std::string::npos, "a record does not steer the terminal");
        require(code == app::ExitCode::Success || code == app::ExitCode::UnreadableInput, "it ends in order");
    }
    return 0;
}
