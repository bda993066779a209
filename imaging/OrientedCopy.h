// Turning and mirroring planes of samples: the eight ways up of a picture, as plain address arithmetic.
#pragma once

#include <SelvioFacialCapture/imaging/Geometry.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace selvio {

/// The memory of a turned plane, addressed by the columns and rows of the plane it is made from.
struct TurnedPlane {
    std::uint8_t* origin = nullptr;  ///< where source column 0, row 0 moves to
    std::ptrdiff_t columnStep = 0;   ///< bytes from one source column to the next
    std::ptrdiff_t rowStep = 0;      ///< bytes from one source row to the next

    /// `width` and `height` are the source's; `sampleSize` is in bytes.
    static TurnedPlane make(Turn turn, int width, int height, std::size_t sampleSize, std::uint8_t* data,
                            std::size_t bytesPerRow) {
        const auto sample = static_cast<std::ptrdiff_t>(sampleSize);
        const auto row = static_cast<std::ptrdiff_t>(bytesPerRow);
        const std::ptrdiff_t stepX = turn.reversesX ? -sample : sample;
        const std::ptrdiff_t stepY = turn.reversesY ? -row : row;
        std::uint8_t* origin = data;
        if (turn.reversesX) origin += sample * (turn.turnedWidth(width, height) - 1);
        if (turn.reversesY) origin += row * (turn.turnedHeight(width, height) - 1);
        return {origin, turn.swapsAxes ? stepY : stepX, turn.swapsAxes ? stepX : stepY};
    }
};

/// Copies `rows` source rows, the first of which is row `firstRow` of the whole source, to their places.
template <std::size_t kSampleSize>
void copyTurned(const std::uint8_t* source, std::size_t sourceBytesPerRow, int width, int firstRow, int rows,
                const TurnedPlane& target) {
    constexpr int kTile = 32;  // a tile of source and target stays in the first-level cache when the axes are swapped
    std::uint8_t* const origin = target.origin + firstRow * target.rowStep;
    if (target.columnStep == static_cast<std::ptrdiff_t>(kSampleSize)) {
        for (int r = 0; r < rows; ++r) {
            std::memcpy(origin + r * target.rowStep, source + static_cast<std::size_t>(r) * sourceBytesPerRow,
                        static_cast<std::size_t>(width) * kSampleSize);
        }
        return;
    }
    for (int tileRow = 0; tileRow < rows; tileRow += kTile) {
        for (int tileColumn = 0; tileColumn < width; tileColumn += kTile) {
            const int endRow = std::min(rows, tileRow + kTile);
            const int endColumn = std::min(width, tileColumn + kTile);
            for (int r = tileRow; r < endRow; ++r) {
                const std::uint8_t* const in = source + static_cast<std::size_t>(r) * sourceBytesPerRow;
                std::uint8_t* const out = origin + r * target.rowStep;
                for (int c = tileColumn; c < endColumn; ++c) {
                    std::memcpy(out + c * target.columnStep, in + static_cast<std::size_t>(c) * kSampleSize,
                                kSampleSize);
                }
            }
        }
    }
}

}  // namespace selvio
