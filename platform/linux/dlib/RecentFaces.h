// The faces of the frames examined last, so that one frame is not examined twice.
#pragma once

#include "FoundFace.h"
#include "ViewTransform.h"

#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace selvio::hog {

/// Any thread. Does not keep the pixel buffers alive.
class RecentFaces {
public:
    struct Entry {
        std::weak_ptr<const PixelBuffer> buffer;
        ViewTransform view;
        std::vector<FoundFace> faces;  ///< in pixels of the view
    };

    /// The one of the process.
    static RecentFaces& shared();

    void add(Entry entry);
    [[nodiscard]] std::optional<Entry> find(const std::shared_ptr<const PixelBuffer>& buffer) const;

private:
    mutable std::mutex mutex_;
    std::array<Entry, 4> entries_;  // guarded by mutex_
    std::size_t next_ = 0;          // guarded by mutex_
};

}  // namespace selvio::hog
