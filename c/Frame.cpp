#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "c/Support.h"

using namespace selvio::c;
using selvio::PixelBufferLayout;

namespace {

PixelBufferLayout layoutOf(const selvio_pixels& pixels) {
    checkPixelFormat(pixels.format);
    const auto compact = PixelBufferLayout::make(pixels.width, pixels.height, pixels.format);
    if (!compact)
        throw Failure("a picture cannot have " + std::to_string(pixels.width) + " x " + std::to_string(pixels.height) +
                      " pixels");
    std::array<std::size_t, 2> bytesPerRow{};
    for (int plane = 0; plane < compact->planeCount; ++plane) {
        const auto i = static_cast<std::size_t>(plane);
        (void)required(pixels.planes[i], "a plane");
        if (pixels.bytes_per_row[i] < compact->rowBytes(plane))
            throw Failure("rows of " + std::to_string(pixels.bytes_per_row[i]) + " bytes are too short for plane " +
                          std::to_string(plane));
        bytesPerRow[i] = pixels.bytes_per_row[i];
    }
    const auto layout = PixelBufferLayout::make(pixels.width, pixels.height, pixels.format, bytesPerRow);
    if (!layout) throw Failure("rows are too long");
    return *layout;
}

std::shared_ptr<selvio::PixelBuffer> wrap(const selvio_pixels& pixels, std::function<void()> release) {
    // Frames are only read.
    const std::array planes = {const_cast<std::uint8_t*>(pixels.planes[0]),
                               const_cast<std::uint8_t*>(pixels.planes[1])};
    return selvio::PixelBuffer::wrap(layoutOf(pixels), planes, std::move(release));
}

selvio_frame* makeFrame(std::shared_ptr<selvio::PixelBuffer> pixels) {
    return new selvio_frame{selvio::SampleBuffer::makeVideo(std::move(pixels))};
}

}  // namespace

selvio_frame* selvio_frame_create(const selvio_pixels* pixels, char** error) {
    return guarded(error, [&] {
        auto copy = SelvioFacialCaptureImageUtilities::copyPixelBuffer(wrap(required(pixels, "pixels"), [] {}));
        if (!copy) throw std::bad_alloc();
        return makeFrame(std::move(copy));
    });
}

selvio_frame* selvio_frame_wrap(const selvio_pixels* pixels, void (*release)(void* user), void* user, char** error) {
    return guarded(error, [&] {
        // After a failure the memory is still the host's.
        const auto owned = std::make_shared<std::atomic<bool>>(false);
        auto* const frame = makeFrame(wrap(required(pixels, "pixels"), [owned, release, user] {
            if (release && *owned) release(user);
        }));
        *owned = true;
        return frame;
    });
}

selvio_frame* selvio_frame_retain(const selvio_frame* frame, char** error) {
    return guarded(error, [&] { return new selvio_frame(required(frame, "frame")); });
}

void selvio_frame_destroy(selvio_frame* frame) {
    guarded(nullptr, [&] { delete frame; });
}

bool selvio_frame_get_pixels(const selvio_frame* frame, selvio_pixels* pixels, char** error) {
    return guarded(error, [&] {
        selvio_pixels& filled = required(pixels, "pixels");
        const selvio::PixelBuffer& buffer = *required(frame, "frame").object->imageBuffer();
        if (buffer.format() != SELVIO_PIXEL_FORMAT_BGRA && buffer.format() != SELVIO_PIXEL_FORMAT_NV12)
            throw Failure("the frame's pixels are neither BGRA nor NV12");
        filled = {buffer.width(), buffer.height(), buffer.format(), {nullptr, nullptr}, {0, 0}};
        for (int plane = 0; plane < buffer.planeCount(); ++plane) {
            const auto i = static_cast<std::size_t>(plane);
            filled.planes[i] = buffer.data(plane);
            filled.bytes_per_row[i] = buffer.bytesPerRow(plane);
        }
    });
}
