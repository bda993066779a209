#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <limits>
#include <new>
#include <utility>

namespace selvio {
namespace {

constexpr int kLongestSide = 32767;
constexpr std::align_val_t kAlignment{64};

std::uint8_t* allocateBlock(std::size_t byteSize) {
    return static_cast<std::uint8_t*>(::operator new(byteSize, kAlignment, std::nothrow));
}

void freeBlock(std::uint8_t* block) {
    ::operator delete(block, kAlignment);
}

std::size_t bytesPerSample(const PixelBufferLayout& layout, int plane) {
    if (layout.format != kPixelFormat420v) return 4;
    return plane == 0 ? 1 : 2;
}

std::array<std::uint8_t*, 2> planesOf(const PixelBufferLayout& layout, std::uint8_t* block) {
    const PlaneLayout& first = layout.planes[0];
    return {block,
            layout.planeCount == 2 ? block + first.bytesPerRow * static_cast<std::size_t>(first.height) : nullptr};
}

}  // namespace

std::optional<PixelBufferLayout> PixelBufferLayout::make(int width, int height, PixelFormat format,
                                                         std::array<std::size_t, 2> bytesPerRow) {
    if (width < 1 || height < 1 || width > kLongestSide || height > kLongestSide) return std::nullopt;
    PixelBufferLayout layout{.width = width, .height = height, .format = format == 0 ? kPixelFormat32BGRA : format};
    switch (layout.format) {
        case kPixelFormat32ARGB:
        case kPixelFormat32BGRA:
            layout.planes[0] = {width, height, 0};
            break;
        case kPixelFormat420v:
            layout.planeCount = 2;
            layout.planes[0] = {width, height, 0};
            layout.planes[1] = {(width + 1) / 2, (height + 1) / 2, 0};
            break;
        default:
            return std::nullopt;
    }
    for (int i = 0; i < layout.planeCount; ++i) {
        const auto index = static_cast<std::size_t>(i);
        const std::size_t shortest = layout.rowBytes(i);
        layout.planes[index].bytesPerRow = bytesPerRow[index] != 0 ? bytesPerRow[index] : (shortest + 63) / 64 * 64;
        // So that the bytes of all planes can be counted.
        constexpr std::size_t kLongest = std::numeric_limits<std::ptrdiff_t>::max() / (2 * kLongestSide);
        if (layout.planes[index].bytesPerRow < shortest || layout.planes[index].bytesPerRow > kLongest)
            return std::nullopt;
    }
    return layout;
}

std::size_t PixelBufferLayout::byteSize() const {
    return planes[0].bytesPerRow * static_cast<std::size_t>(planes[0].height) +
           planes[1].bytesPerRow * static_cast<std::size_t>(planes[1].height);
}

std::size_t PixelBufferLayout::rowBytes(int plane) const {
    return static_cast<std::size_t>(planes[static_cast<std::size_t>(plane)].width) * bytesPerSample(*this, plane);
}

std::size_t PixelBufferLayout::planeBytes(int plane) const {
    const PlaneLayout& layout = planes[static_cast<std::size_t>(plane)];
    return layout.bytesPerRow * static_cast<std::size_t>(layout.height - 1) + rowBytes(plane);
}

PixelBuffer::PixelBuffer(const PixelBufferLayout& layout, std::array<std::uint8_t*, 2> planes,
                         std::function<void()> release)
    : layout_(layout), planes_(planes), release_(std::move(release)) {}

PixelBuffer::~PixelBuffer() {
    if (release_) release_();
}

bool PixelBuffer::isReadable() const {
    const auto expected = PixelBufferLayout::make(layout_.width, layout_.height, layout_.format,
                                                  {layout_.planes[0].bytesPerRow, layout_.planes[1].bytesPerRow});
    return expected && *expected == layout_ && planes_[0] && (layout_.planeCount == 1 || planes_[1]);
}

std::shared_ptr<PixelBuffer> PixelBuffer::create(int width, int height, PixelFormat format) {
    const auto layout = PixelBufferLayout::make(width, height, format);
    return layout ? create(*layout) : nullptr;
}

std::shared_ptr<PixelBuffer> PixelBuffer::create(const PixelBufferLayout& layout) {
    std::uint8_t* const block = layout.byteSize() > 0 ? allocateBlock(layout.byteSize()) : nullptr;
    if (!block) return nullptr;
    return wrap(layout, planesOf(layout, block), [block] { freeBlock(block); });
}

std::shared_ptr<PixelBuffer> PixelBuffer::wrap(const PixelBufferLayout& layout, std::array<std::uint8_t*, 2> planes,
                                               std::function<void()> release) {
    return std::shared_ptr<PixelBuffer>(new PixelBuffer(layout, planes, std::move(release)));
}

std::shared_ptr<PixelBufferPool> PixelBufferPool::create() {
    std::shared_ptr<PixelBufferPool> pool(new PixelBufferPool);
    pool->idle_.reserve(kMostIdleBlocks);  // so that recycling cannot fail
    return pool;
}

PixelBufferPool::~PixelBufferPool() {
    for (std::uint8_t* block : idle_) freeBlock(block);
}

std::shared_ptr<PixelBuffer> PixelBufferPool::acquire(const PixelBufferLayout& layout) {
    const std::size_t byteSize = layout.byteSize();
    if (byteSize == 0) return nullptr;
    std::uint8_t* block = nullptr;
    {
        const std::lock_guard lock(mutex_);
        if (byteSize != blockSize_) {
            for (std::uint8_t* stale : idle_) freeBlock(stale);
            idle_.clear();
            blockSize_ = byteSize;
        }
        if (!idle_.empty()) {
            block = idle_.back();
            idle_.pop_back();
        }
    }
    if (!block) {
        block = allocateBlock(byteSize);
        if (!block) return nullptr;
        const std::lock_guard lock(mutex_);
        ++allocations_;
    }
    return PixelBuffer::wrap(layout, planesOf(layout, block), [pool = weak_from_this(), block, byteSize] {
        if (const auto self = pool.lock()) {
            self->recycle(block, byteSize);
        } else {
            freeBlock(block);
        }
    });
}

std::size_t PixelBufferPool::allocations() const {
    const std::lock_guard lock(mutex_);
    return allocations_;
}

void PixelBufferPool::recycle(std::uint8_t* block, std::size_t byteSize) {
    {
        const std::lock_guard lock(mutex_);
        if (byteSize == blockSize_ && idle_.size() < kMostIdleBlocks) {
            idle_.push_back(block);
            return;
        }
    }
    freeBlock(block);
}

}  // namespace selvio
