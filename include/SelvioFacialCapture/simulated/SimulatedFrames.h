// Camera frames made from one photograph and a motion script.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/PixelBuffer.h>
#include <SelvioFacialCapture/simulated/FaceGeometry.h>
#include <SelvioFacialCapture/simulated/MotionScript.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace selvio {

/// Scale, turn and shift: x' = a x - b y + tx, y' = b x + a y + ty.
struct SELVIO_EXPORT Similarity {
    double a = 1.0;
    double b = 0.0;
    double tx = 0.0;
    double ty = 0.0;
    [[nodiscard]] Point apply(Point p) const { return {a * p.x - b * p.y + tx, b * p.x + a * p.y + ty}; }
    [[nodiscard]] Similarity inverse() const;
};

/// A face as it truly stands in a frame, in pixels from the corner of the top left pixel.
struct FrameFace {
    Similarity photographToFrame;
    Point jawLeft;
    Point jawRight;
    std::map<std::string, Point> landmarks;  ///< the geometry's own
};

/// Frames as a pure function of the time: the same photograph, script and time give the same bytes. Any thread, all at
/// once if wanted.
class SELVIO_EXPORT SimulatedFrames {
public:
    /// `photograph` is upright BGRA (alpha is not looked at) of the size that `geometry` states; it is copied. An error
    /// says what does not fit.
    [[nodiscard]] static Expected<std::shared_ptr<const SimulatedFrames>> make(
        const std::shared_ptr<const PixelBuffer>& photograph, const FaceGeometry& geometry, MotionScript script);
    ~SimulatedFrames();

    [[nodiscard]] const MotionScript& script() const { return script_; }

    /// Draws the frame of this time into `frame`, which is BGRA or 420v of any size; false, and nothing drawn, for
    /// another format.
    bool render(std::chrono::nanoseconds time, PixelBuffer& frame) const;
    /// The same into new memory; null for an impossible size or format.
    [[nodiscard]] std::shared_ptr<PixelBuffer> frame(std::chrono::nanoseconds time, int width, int height,
                                                     PixelFormat format) const;

    /// Where the faces in view are in a frame of this size: none, one or two, the script's main face first. Parts
    /// outside the frame included.
    [[nodiscard]] std::vector<FrameFace> trueGeometry(std::chrono::nanoseconds time, int width, int height) const;

private:
    struct SELVIO_HIDDEN Canvas;
    SimulatedFrames(FaceGeometry geometry, MotionScript script, std::unique_ptr<const Canvas> canvas);
    [[nodiscard]] Similarity photographToFrame(const FacePose& pose, int width, int height) const;

    const FaceGeometry geometry_;
    const MotionScript script_;
    const std::unique_ptr<const Canvas> canvas_;
};

}  // namespace selvio
