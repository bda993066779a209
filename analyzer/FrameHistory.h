// The recent frames, from which the selected one is taken.
#pragma once

#include <SelvioFacialCapture/imaging/Image.h>

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

namespace selvio {

/// Images in arrival order, newest last. Every operation may be called on any thread.
class FrameHistory {
public:
    /// Removes the oldest images until there is room for another one within `limit`, and appends it.
    void append(Image image, std::size_t limit) {
        std::unique_lock lock(mutex_);
        while (!closed_ && images_.size() >= limit) {
            std::optional<Image> oldest(std::move(images_.front()));
            images_.pop_front();
            lock.unlock();
            oldest.reset();  // a host may own the pixels: their release must not run under the lock
            lock.lock();
        }
        if (!closed_) images_.push_back(std::move(image));
    }

    [[nodiscard]] std::optional<Image> oldest() const {
        const std::lock_guard lock(mutex_);
        return images_.empty() ? std::nullopt : std::optional(images_.front());
    }

    [[nodiscard]] std::optional<Image> newest() const {
        const std::lock_guard lock(mutex_);
        return images_.empty() ? std::nullopt : std::optional(images_.back());
    }

    [[nodiscard]] std::vector<Image> images() const {
        const std::lock_guard lock(mutex_);
        return {images_.begin(), images_.end()};
    }

    /// Drops all images and takes no more.
    void close() {
        std::deque<Image> dropped;  // outlives the lock
        const std::lock_guard lock(mutex_);
        closed_ = true;
        images_.swap(dropped);
    }

private:
    mutable std::mutex mutex_;
    std::deque<Image> images_;  // guarded by mutex_
    bool closed_ = false;       // guarded by mutex_
};

}  // namespace selvio
