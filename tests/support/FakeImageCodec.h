// A codec that "encodes" into readable text: what it was asked for, and the user comment.
#pragma once

#include <SelvioFacialCapture/platform/ImageCodec.h>

#include <functional>
#include <utility>

namespace selvio {

struct FakeImageCodec final : ImageCodec {
    std::optional<Bytes> encodeJpeg(const Image& image, double quality) const override {
        duringEncoding(image);
        if (!image.bitmap || failsAt == 1) return std::nullopt;
        return bytes("encoded at " + std::to_string(quality));
    }
    std::shared_ptr<ImageSource> openSource(Bytes bytes) const override {
        if (failsAt == 2) return nullptr;
        auto source = std::make_shared<Source>();
        source->text.assign(bytes.begin(), bytes.end());
        return source;
    }
    std::optional<Bytes> encodeFromSource(const ImageSource& source, const ImageProperties& properties) const override {
        if (failsAt == 3) return std::nullopt;
        const auto& jfif = properties.jfif.value();
        return bytes(static_cast<const Source&>(source).text + ", then at " +
                     std::to_string(properties.lossyCompressionQuality.value()) + ", " + std::to_string(jfif.xDensity) +
                     "x" + std::to_string(jfif.yDensity) + "/" + std::to_string(jfif.densityUnit) + ": " +
                     properties.exif.value().userComment.value_or("(none)"));
    }
    bool userCommentFits(std::string_view text) const override { return text.size() <= commentLimit; }

    int failsAt = 0;  ///< 1 encoding, 2 opening, 3 encoding anew
    std::size_t commentLimit = 65000;
    std::function<void(const Image&)> duringEncoding = [](const auto&) {};  ///< may throw

private:
    struct Source final : ImageSource {
        ImageProperties properties() const override { return {}; }
        std::string text;
    };
    static Bytes bytes(const std::string& text) { return {text.begin(), text.end()}; }
};

}  // namespace selvio
