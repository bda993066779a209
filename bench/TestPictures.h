// Pictures for the benchmarks of the vision step: a real portrait, moved, scaled, turned and made noisy.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace selvio::test {

/// Rows of R, G, B.
struct Picture {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgb;

    [[nodiscard]] std::size_t indexOf(int x, int y) const {
        return (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) * 3;
    }
};

/// Where a person of the portrait stands in a frame.
struct Person {
    double x = 0.5;     ///< middle between the upper ends of the jaw line, share of the frame's width
    double y = 0.5;     ///< the same, share of the frame's height
    double jaw = 0.55;  ///< width of the jaw, share of the frame's width
    double roll = 0.0;  ///< degrees, clockwise on the screen
};

/// A photograph of one face, and where the face is: pixels and degrees of the photograph.
struct Portrait {
    Picture picture;
    double x = 0.0;     ///< middle between the upper ends of the jaw line
    double y = 0.0;     ///< the same
    double jaw = 0.0;   ///< their distance
    double roll = 0.0;  ///< clockwise
};

/// The repository's own, read once.
const Portrait& samplePortrait();

/// A picture file, JPEG or PNG. Throws std::runtime_error if it cannot be read.
Picture loadPicture(const std::string& path);

/// An upright frame with these people, later ones in front, over a smooth background. A single person's photograph
/// fills the frame, several have an oval of it each.
Picture frameOf(int width, int height, const std::vector<Person>& people, const Portrait& portrait = samplePortrait());
/// Ovals of the people's faces on a given background.
Picture withPeople(Picture background, const std::vector<Person>& people, const Portrait& portrait = samplePortrait());

/// Adds Gaussian noise of this standard deviation, the same for the same seed.
Picture withNoise(Picture picture, double deviation, unsigned seed);

std::shared_ptr<PixelBuffer> toBgra(const Picture& picture);
std::shared_ptr<PixelBuffer> to420v(const Picture& picture);

}  // namespace selvio::test
