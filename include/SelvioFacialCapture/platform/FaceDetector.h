// Port: faces in a picture and whether they smile.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/imaging/Image.h>

#include <vector>

namespace selvio {

struct FaceFeature {
    Rect bounds;  ///< pixels of the picture, origin at the top left
    bool hasSmile = false;
};

class SELVIO_EXPORT FaceDetector {
public:
    virtual ~FaceDetector() = default;
    /// The faces of an upright picture; `hasSmile` is judged only when `smile` is asked for. Any thread; an empty list
    /// when nothing could be found or judged.
    [[nodiscard]] virtual std::vector<FaceFeature> featuresInImage(const Image& image, bool smile) = 0;
};

}  // namespace selvio
