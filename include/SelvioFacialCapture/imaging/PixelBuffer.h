// Pixels in memory: one or two planes of one picture.
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace selvio {

/// A four-character pixel format code. A code of 0 asks for the default, 32-bit BGRA.
using PixelFormat = std::uint32_t;
inline constexpr PixelFormat kPixelFormat32ARGB = 32;          ///< bytes A, R, G, B; alpha premultiplied
inline constexpr PixelFormat kPixelFormat32BGRA = 0x42475241;  ///< bytes B, G, R, A; alpha premultiplied
inline constexpr PixelFormat kPixelFormat420v =
    0x34323076;  ///< Y plane, then interleaved Cb and Cr at half size; BT.601, video range

/// Where one plane lies. Sizes are in samples of the plane (for the second plane of 420v: in Cb/Cr pairs).
struct PlaneLayout {
    int width = 0;
    int height = 0;
    std::size_t bytesPerRow = 0;
    friend bool operator==(const PlaneLayout&, const PlaneLayout&) = default;
};

/// Size, format and planes of a pixel buffer.
struct SELVIO_EXPORT PixelBufferLayout {
    int width = 0;   ///< pixels
    int height = 0;  ///< pixels
    PixelFormat format = kPixelFormat32BGRA;
    int planeCount = 1;
    std::array<PlaneLayout, 2> planes{};

    /// The layout with the given row lengths in bytes (0: as short as the plane allows, rounded up to 64 bytes).
    /// Nothing if a side is not in 1...32767, the format is not one of the three above (0 means BGRA), or a row is too
    /// short for its plane.
    static std::optional<PixelBufferLayout> make(int width, int height, PixelFormat format,
                                                 std::array<std::size_t, 2> bytesPerRow = {0, 0});

    /// Bytes of all planes, one directly behind the other.
    [[nodiscard]] std::size_t byteSize() const;
    /// Bytes of the samples in one row of a plane, without the padding behind them.
    [[nodiscard]] std::size_t rowBytes(int plane = 0) const;
    /// Bytes from a plane's first sample to the end of its last. Nothing may be read behind them: the last row of a
    /// picture that is a part of a larger one ends before its stride does.
    [[nodiscard]] std::size_t planeBytes(int plane = 0) const;
    friend bool operator==(const PixelBufferLayout&, const PixelBufferLayout&) = default;
};

class PixelBufferPool;

/// A picture's pixels. Shared by reference; whoever holds a reference may read, and only the one who made it writes,
/// before it hands it on.
class SELVIO_EXPORT PixelBuffer {
public:
    /// New memory, not cleared, all planes in one block, 64-byte aligned. Null if the layout is impossible or memory is
    /// short.
    static std::shared_ptr<PixelBuffer> create(int width, int height, PixelFormat format);
    static std::shared_ptr<PixelBuffer> create(const PixelBufferLayout& layout);
    /// Foreign memory, without a copy: `planes` must stay valid until `release` is called, once, when the last
    /// reference is released.
    static std::shared_ptr<PixelBuffer> wrap(const PixelBufferLayout& layout, std::array<std::uint8_t*, 2> planes,
                                             std::function<void()> release);

    PixelBuffer(const PixelBuffer&) = delete;
    PixelBuffer& operator=(const PixelBuffer&) = delete;
    ~PixelBuffer();

    [[nodiscard]] const PixelBufferLayout& layout() const { return layout_; }
    [[nodiscard]] int width() const { return layout_.width; }
    [[nodiscard]] int height() const { return layout_.height; }
    [[nodiscard]] PixelFormat format() const { return layout_.format; }
    [[nodiscard]] int planeCount() const { return layout_.planeCount; }
    [[nodiscard]] std::size_t bytesPerRow(int plane = 0) const {
        return layout_.planes[static_cast<std::size_t>(plane)].bytesPerRow;
    }
    [[nodiscard]] std::uint8_t* data(int plane = 0) { return planes_[static_cast<std::size_t>(plane)]; }
    [[nodiscard]] const std::uint8_t* data(int plane = 0) const { return planes_[static_cast<std::size_t>(plane)]; }
    /// Whether it can be read as its layout says, which `wrap` takes on trust: a size, a known format, rows long
    /// enough, memory behind every plane.
    [[nodiscard]] bool isReadable() const;

private:
    friend class PixelBufferPool;
    PixelBuffer(const PixelBufferLayout& layout, std::array<std::uint8_t*, 2> planes, std::function<void()> release);

    PixelBufferLayout layout_;
    std::array<std::uint8_t*, 2> planes_;
    std::function<void()> release_;
};

/// Recycles the memory of pixel buffers of one size, so that a steady stream of frames allocates none.
/// Buffers may outlive the pool; memory comes back to it from any thread. A request for another size frees what is
/// idle, and no more than a few blocks are kept idle.
class SELVIO_EXPORT PixelBufferPool : public std::enable_shared_from_this<PixelBufferPool> {
public:
    static std::shared_ptr<PixelBufferPool> create();
    ~PixelBufferPool();

    /// A buffer of the layout, recycled if one is idle. Null as for `PixelBuffer::create`.
    [[nodiscard]] std::shared_ptr<PixelBuffer> acquire(const PixelBufferLayout& layout);
    /// Blocks of memory this pool has asked the system for since it was made.
    [[nodiscard]] std::size_t allocations() const;

private:
    static constexpr std::size_t kMostIdleBlocks = 4;

    PixelBufferPool() = default;
    void recycle(std::uint8_t* block, std::size_t byteSize);

    mutable std::mutex mutex_;
    std::vector<std::uint8_t*> idle_;  // guarded by mutex_
    std::size_t blockSize_ = 0;        // guarded by mutex_; bytes of each idle block
    std::size_t allocations_ = 0;      // guarded by mutex_
};

}  // namespace selvio
