// Pictures of four flat quarters, and files of them that other programs write and read.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>
#include <SelvioFacialCapture/platform/ImageCodec.h>

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "support/MediaProbe.h"
#include "support/Pixels.h"

namespace selvio::test {

/// Blue, green and red at a place.
using Colour = std::array<int, 3>;
inline Colour colourAt(const PixelBuffer& bgra, int x, int y) {
    const std::uint8_t* const p = sampleAt(bgra, x, y);
    return {p[0], p[1], p[2]};
}

/// The colours of the quarters from the top left in reading order.
using Quarters = std::array<Colour, 4>;
inline constexpr Colour kRed{0, 0, 255}, kGreen{0, 255, 0}, kBlue{255, 0, 0}, kWhite{255, 255, 255};
inline constexpr Quarters kQuarters{kRed, kGreen, kBlue, kWhite};

/// `kQuarters` as an EXIF orientation has them shown.
inline Quarters quartersTurned(int orientation) {
    const Colour r = kRed, g = kGreen, b = kBlue, w = kWhite;
    const Quarters turned[] = {{r, g, b, w}, {g, r, w, b}, {w, b, g, r}, {b, w, r, g},
                               {r, b, g, w}, {b, r, w, g}, {w, g, b, r}, {g, w, r, b}};
    return turned[orientation - 1];
}

/// The colours in the middle of the four quarters.
inline Quarters quartersOf(const PixelBuffer& bgra) {
    const auto at = [&](int x, int y) { return colourAt(bgra, bgra.width() * x / 4, bgra.height() * y / 4); };
    return {at(1, 1), at(3, 1), at(1, 3), at(3, 3)};
}

inline void expectQuarters(const PixelBuffer& bgra, const Quarters& expected) {
    EXPECT_EQ(bgra.format(), kPixelFormat32BGRA);
    const Quarters got = quartersOf(bgra);
    for (std::size_t i = 0; i < 12; ++i)
        EXPECT_NEAR(got[i / 3][i % 3], expected[i / 3][i % 3], 3) << "quarter " << i / 3 << " channel " << i % 3;
}

/// A picture of 70 x 50 pixels as `convert` writes it, with options of its; its format is that of the name. `colours`
/// are those of the quarters.
inline Bytes fileOf(const std::string& name, const std::string& options = "",
                    const std::string& colours = "red lime blue white") {
    const TemporaryDirectory directory;
    const std::string path = directory.path() / name;
    std::istringstream words(colours);
    std::string c[4];
    words >> c[0] >> c[1] >> c[2] >> c[3];
    outputOf("convert -size 35x25 \\( 'xc:" + c[0] + "' 'xc:" + c[1] + "' +append \\) \\( 'xc:" + c[2] +
             "' 'xc:" + c[3] + "' +append \\) -append " + options + " " + path);
    const std::string content = contentOf(path);
    return {content.begin(), content.end()};
}

}  // namespace selvio::test
