// Ports: the view on screen, its preview layer, and the notifications of the application's life cycle.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/platform/Capture.h>

namespace selvio {

/// Shows a session's frames. On the main queue unless said otherwise.
class SELVIO_EXPORT PreviewLayer {
public:
    virtual ~PreviewLayer() = default;
    /// Any thread.
    [[nodiscard]] virtual std::shared_ptr<CaptureSession> session() const = 0;
    /// Null detaches the session. Any thread.
    virtual void setSession(std::shared_ptr<CaptureSession> session) = 0;
    virtual void setVideoGravity(const std::string& gravity) = 0;
    /// Null while no session with a video input is attached.
    [[nodiscard]] virtual std::shared_ptr<CaptureConnection> connection() const = 0;
    /// The object with its bounds in the layer's coordinates. Any thread.
    [[nodiscard]] virtual MetadataObject transformedMetadataObject(const MetadataObject& object) const = 0;
};

/// A surface laid over the view that blurs what is beneath it.
struct BlurView {
    std::int64_t style = 0;  ///< 1: light
    std::int64_t tag = 0;
    Rect frame;
};

/// The view that backs a camera. On the main queue, except `layer`.
class SELVIO_EXPORT View {
public:
    virtual ~View() = default;
    [[nodiscard]] virtual std::shared_ptr<PreviewLayer> layer() const = 0;
    virtual void setFrame(Rect frame) = 0;
    [[nodiscard]] virtual Rect frame() const = 0;
    virtual void addSubview(const BlurView& view) = 0;
    /// Removes the first subview with the tag; false if there is none.
    virtual bool removeSubviewWithTag(std::int64_t tag) = 0;
};

/// What preview layers have in common: remembers the session and the layer's size, and draws nothing. Any thread.
class SELVIO_EXPORT PlainPreviewLayer : public PreviewLayer {
public:
    [[nodiscard]] std::shared_ptr<CaptureSession> session() const final;
    void setSession(std::shared_ptr<CaptureSession> session) override;
    void setVideoGravity(const std::string& gravity) override;
    /// Null.
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override;
    /// The object as it is.
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override;
    /// In points. A view without a size changes nothing.
    void setSize(Size size);

protected:
    [[nodiscard]] Size size() const;

private:
    mutable MemberMutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
    Size size_{360.0, 640.0};                  // guarded by mutex_
};

/// What views have in common: remembers the layer, the frame and what is laid over it. Any thread.
class SELVIO_EXPORT PlainView : public View {
public:
    /// With a layer that draws nothing: a view without a screen.
    PlainView();
    explicit PlainView(std::shared_ptr<PlainPreviewLayer> layer);
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const final;
    /// The layer fills the frame.
    void setFrame(Rect frame) final;
    [[nodiscard]] Rect frame() const final;
    void addSubview(const BlurView& view) override;
    bool removeSubviewWithTag(std::int64_t tag) override;
    /// Oldest first.
    [[nodiscard]] std::vector<BlurView> subviews() const;

private:
    const std::shared_ptr<PlainPreviewLayer> layer_;
    mutable MemberMutex mutex_;
    Rect frame_;                      // guarded by mutex_
    std::vector<BlurView> subviews_;  // guarded by mutex_
};

enum class ApplicationNotification { WillResignActive, DidBecomeActive, WillTerminate };

/// Tells observers what happens to the application. The host posts, on the main queue.
class SELVIO_EXPORT NotificationCenter {
public:
    using Handler = std::function<void()>;
    /// Identifies an observer; any address of the observer's own.
    using Observer = const void*;

    /// The observer is held weakly: once destroyed it is forgotten.
    void addObserver(const std::shared_ptr<const void>& observer, ApplicationNotification notification,
                     Handler handler);
    /// Removes the observer for all notifications; a handler of it that runs on another thread may still be running on
    /// return.
    void removeObserver(Observer observer);
    /// Calls the handlers on the calling thread, in the order of registration.
    void post(ApplicationNotification notification);

private:
    struct Entry {
        Observer observer;
        ApplicationNotification notification;
        Handler handler;
        std::weak_ptr<const void> lifetime;
    };
    template <typename Condition>
    void remove(Condition condition);

    std::mutex mutex_;
    std::vector<Entry> entries_;  // guarded by mutex_
};

}  // namespace selvio
