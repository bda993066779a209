#include "bench/TestPictures.h"

#include "support/Pixels.h"

#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/linux/Codec.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <stdexcept>
#include <utility>

namespace selvio::test {
namespace {

std::uint8_t toByte(double value) {
    return static_cast<std::uint8_t>(std::clamp(std::lround(value), 0L, 255L));
}

std::array<double, 3> sample(const Picture& picture, double x, double y) {
    x = std::clamp(x, 0.0, picture.width - 1.001);
    y = std::clamp(y, 0.0, picture.height - 1.001);
    const double right = x - std::floor(x);
    const double down = y - std::floor(y);
    std::array<double, 3> result{};
    const std::size_t stride = static_cast<std::size_t>(picture.width) * 3;
    for (std::size_t c = 0; c < 3; ++c) {
        const std::uint8_t* const p = &picture.rgb[picture.indexOf(static_cast<int>(x), static_cast<int>(y)) + c];
        result[c] = (p[0] * (1.0 - right) + p[3] * right) * (1.0 - down) +
                    (p[stride] * (1.0 - right) + p[stride + 3] * right) * down;
    }
    return result;
}

/// Where a pixel of the frame lies in the photograph.
Point inPortrait(const Portrait& portrait, const Person& person, int frameWidth, int frameHeight, int x, int y) {
    const double scale = portrait.jaw / (person.jaw * frameWidth);
    const double angle = (person.roll - portrait.roll) * std::acos(-1.0) / 180.0;
    const double dx = (x + 0.5 - person.x * frameWidth) * scale;
    const double dy = (y + 0.5 - person.y * frameHeight) * scale;
    return {portrait.x + dx * std::cos(angle) + dy * std::sin(angle),
            portrait.y - dx * std::sin(angle) + dy * std::cos(angle)};
}

void setPixel(Picture& picture, int x, int y, const std::array<double, 3>& colour) {
    std::transform(colour.begin(), colour.end(), &picture.rgb[picture.indexOf(x, y)], toByte);
}

}  // namespace

Picture loadPicture(const std::string& path) {
    const auto loaded = JpegPngImageLoader().loadImage(path);
    if (!loaded) throw std::runtime_error(loaded.error().localizedDescription);
    const PixelBuffer& pixels = *loaded.value();
    Picture picture{pixels.width(), pixels.height(), {}};
    for (int y = 0; y < picture.height; ++y) {
        const std::uint8_t* p = sampleAt(pixels, 0, y);
        for (int x = 0; x < picture.width; ++x, p += 4) picture.rgb.insert(picture.rgb.end(), {p[2], p[1], p[0]});
    }
    return picture;
}

const Portrait& samplePortrait() {
    static const Portrait portrait{
        .picture = loadPicture(SELVIO_SAMPLES "/astronaut.jpg"), .x = 125.1, .y = 107.1, .jaw = 92.8, .roll = 1.9};
    return portrait;
}

Picture frameOf(int width, int height, const std::vector<Person>& people, const Portrait& portrait) {
    Picture frame{width, height,
                  std::vector<std::uint8_t>(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3)};
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            std::array<double, 3> colour{90.0 + 60.0 * x / width, 110.0 + 50.0 * y / height, 130.0};
            if (people.size() == 1) {
                const Point p = inPortrait(portrait, people[0], width, height, x, y);
                colour = sample(portrait.picture, p.x - 0.5, p.y - 0.5);
            }
            setPixel(frame, x, y, colour);
        }
    }
    return people.size() > 1 ? withPeople(std::move(frame), people, portrait) : frame;
}

Picture withPeople(Picture background, const std::vector<Person>& people, const Portrait& portrait) {
    for (int y = 0; y < background.height; ++y) {
        for (int x = 0; x < background.width; ++x) {
            for (const Person& person : people) {
                const Point p = inPortrait(portrait, person, background.width, background.height, x, y);
                const double right = (p.x - portrait.x) / (1.02 * portrait.jaw);
                const double down = (p.y - portrait.y) / (1.24 * portrait.jaw);
                if (std::hypot(right, down) < 1.0)
                    setPixel(background, x, y, sample(portrait.picture, p.x - 0.5, p.y - 0.5));
            }
        }
    }
    return background;
}

Picture withNoise(Picture picture, double deviation, unsigned seed) {
    // A table of draws, entered at random places, is fast enough for hundreds of frames.
    std::mt19937 random(seed);
    std::normal_distribution<double> normal(0.0, deviation);
    std::vector<int> draws(1U << 16U);
    for (int& draw : draws) draw = static_cast<int>(std::lround(normal(random)));
    std::size_t at = 0;
    for (std::size_t i = 0; i < picture.rgb.size(); ++i, ++at) {
        if (i % 1024 == 0) at = random();
        picture.rgb[i] = static_cast<std::uint8_t>(std::clamp(picture.rgb[i] + draws[at % draws.size()], 0, 255));
    }
    return picture;
}

std::shared_ptr<PixelBuffer> toBgra(const Picture& picture) {
    return painted(picture.width, picture.height, kPixelFormat32BGRA, [&](std::uint8_t* pixel, int x, int y, int) {
        std::reverse_copy(&picture.rgb[picture.indexOf(x, y)], &picture.rgb[picture.indexOf(x, y)] + 3, pixel);
        pixel[3] = 255;
    });
}

std::shared_ptr<PixelBuffer> to420v(const Picture& picture) {
    return painted(picture.width, picture.height, kPixelFormat420v, [&](std::uint8_t* sample, int x, int y, int plane) {
        const std::uint8_t* const p = &picture.rgb[plane == 0 ? picture.indexOf(x, y) : picture.indexOf(2 * x, 2 * y)];
        if (plane == 0) {
            sample[0] = toByte(16.0 + (65.481 * p[0] + 128.553 * p[1] + 24.966 * p[2]) / 255.0);
        } else {
            sample[0] = toByte(128.0 + (-37.797 * p[0] - 74.203 * p[1] + 112.0 * p[2]) / 255.0);
            sample[1] = toByte(128.0 + (112.0 * p[0] - 93.786 * p[1] - 18.214 * p[2]) / 255.0);
        }
    });
}

}  // namespace selvio::test
