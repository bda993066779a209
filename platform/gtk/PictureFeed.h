// Carries pictures from the camera's thread to the screen.
#pragma once

#include "platform/gtk/PictureScaler.h"

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <functional>
#include <memory>

namespace selvio {

/// Has frames scaled on a thread of its own. Of the frames that wait there only the newest is scaled, and of the
/// pictures that wait for the screen only the newest is kept. Any thread, without waiting.
class PictureFeed : public std::enable_shared_from_this<PictureFeed> {
public:
    struct Picture {
        std::shared_ptr<const PixelBuffer> pixels;
        bool unreadable = false;
    };

    /// `ready` is called on the feed's thread when there is a picture to take, and not again before it is taken.
    PictureFeed(Size screen, std::function<void()> ready);

    /// A frame of the camera; left out while a still picture is shown.
    void show(std::shared_ptr<const PixelBuffer> frame);
    /// A picture that stays, not mirrored; null lets the camera's frames through again.
    void showStill(std::shared_ptr<const PixelBuffer> still);
    /// Pixels of the screen. A picture that is shown already is scaled anew, as by the next.
    void setSize(int width, int height);
    void setUnreadable(bool unreadable);
    /// Releases the camera's last frame.
    void forgetFrame();
    /// The newest picture; without pixels if there is none.
    [[nodiscard]] Picture take();

private:
    /// Changes what is shown with mutex_ held and has it scaled, unless `what` returns false.
    void change(const std::function<bool()>& what);
    void scaleNewest();

    const std::function<void()> ready_;
    MemberMutex mutex_;
    std::shared_ptr<const PixelBuffer> frame_;  // guarded by mutex_; the camera's newest
    std::shared_ptr<const PixelBuffer> still_;  // guarded by mutex_
    PictureRequest request_;                    // guarded by mutex_
    bool scheduled_ = false;                    // guarded by mutex_; a block will scale what is newest then
    bool announced_ = false;                    // guarded by mutex_
    Picture picture_;                           // guarded by mutex_
    PictureScaler scaler_;                      // used on queue_
    SerialQueue queue_{std::string(kQueueLabelPrefix) + ".previewQueue"};
};

}  // namespace selvio
