#include "platform/gtk/PictureFeed.h"

#include <utility>

namespace selvio {

PictureFeed::PictureFeed(Size screen, std::function<void()> ready) : ready_(std::move(ready)) {
    request_.screen = screen;
}

void PictureFeed::change(const std::function<bool()>& what) {
    {
        const std::lock_guard lock(mutex_);
        if (!what() || std::exchange(scheduled_, true)) return;
    }
    queue_.async([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->scaleNewest();
    });
}

void PictureFeed::show(std::shared_ptr<const PixelBuffer> frame) {
    change([&] {
        frame_.swap(frame);
        return !still_;
    });
}

void PictureFeed::showStill(std::shared_ptr<const PixelBuffer> still) {
    change([&] {
        still_.swap(still);
        return true;
    });
}

void PictureFeed::setSize(int width, int height) {
    change([&] {
        const bool other = request_.width != width || request_.height != height;
        request_.width = width;
        request_.height = height;
        return other;
    });
}

void PictureFeed::setUnreadable(bool unreadable) {
    change([&] { return std::exchange(request_.unreadable, unreadable) != unreadable; });
}

void PictureFeed::forgetFrame() {
    mutex_.set(frame_, nullptr);
}

PictureFeed::Picture PictureFeed::take() {
    const std::lock_guard lock(mutex_);
    announced_ = false;
    return std::exchange(picture_, {});
}

void PictureFeed::scaleNewest() {
    std::shared_ptr<const PixelBuffer> newest;
    PictureRequest request;
    {
        const std::lock_guard lock(mutex_);
        scheduled_ = false;
        newest = still_ ? still_ : frame_;
        request = request_;
        request.mirrored = !still_;
    }
    auto pixels = newest ? scaler_.scaled(*newest, request) : nullptr;
    if (!pixels) return;
    Picture picture{std::move(pixels), request.unreadable};
    bool announce = false;
    {
        const std::lock_guard lock(mutex_);
        std::swap(picture_, picture);
        announce = !std::exchange(announced_, true);
    }
    if (announce) ready_();
}

}  // namespace selvio
