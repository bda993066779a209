#include "LandmarkLayout.h"
#include "RecentFaces.h"
#include "Smile.h"
#include "VisionEngine.h"
#include "VisionModels.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <exception>
#include <utility>

namespace selvio {
namespace {

std::optional<Error> checkBuffer(const PixelBuffer* buffer) {
    if (buffer == nullptr) return Error{"There is no pixel buffer to look for faces in"};
    const PixelBufferLayout& layout = buffer->layout();
    if (!PixelBufferLayout::make(layout.width, layout.height, layout.format) || buffer->data(0) == nullptr) {
        return Error{"A pixel buffer of this size or format cannot be searched for faces"};
    }
    return std::nullopt;
}

class MeshSequenceRequestHandler final : public SequenceRequestHandler {
public:
    explicit MeshSequenceRequestHandler(const VisionOptions& options)
        : models_(visionModels(options.detectionModelPath, options.meshModelPath)),
          refine_(options.refineLandmarks),
          clock_(options.clock ? options.clock : std::make_shared<SystemClock>()) {}

    Expected<FaceLandmarksResult> perform(const FaceLandmarksRequest& request) override {
        if (auto error = checkBuffer(request.pixelBuffer.get())) return std::move(*error);
        const auto view = viewForExifOrientation(request.exifOrientation);
        if (!view) return Error{"There is no EXIF orientation " + std::to_string(request.exifOrientation)};
        std::vector<FoundFace> faces;
        try {
            if (!engine_) {
                const LoadedModels& models = models_.get();
                if (!models) return models.error();
                engine_.emplace(models.value(), refine_);
            }
            faces = request.isStillImage
                        ? engine_->findInPicture(*request.pixelBuffer, *view)
                        : engine_->findInSequence(*request.pixelBuffer, *view, clock_->monotonicTime());
            RecentFaces::shared().add({request.pixelBuffer, *view, faces});
        } catch (const std::exception& exception) {
            return Error{std::string("The search for faces failed: ") + exception.what()};
        }
        FaceLandmarksResult result;
        const Size viewSize = viewSizeOf(*request.pixelBuffer, *view);
        for (const FoundFace& face : faces)
            result.observations.push_back(observationOf(face, viewSize, request.revision));
        return result;
    }

private:
    const std::shared_future<LoadedModels> models_;
    const bool refine_;
    const std::shared_ptr<const Clock> clock_;
    std::optional<VisionEngine> engine_;  // used by the thread that performs
};

class MeshFaceDetector final : public FaceDetector {
public:
    explicit MeshFaceDetector(const VisionOptions& options)
        : models_(visionModels(options.detectionModelPath, options.meshModelPath)), refine_(options.refineLandmarks) {}

    std::vector<FaceFeature> featuresInImage(const Image& image, bool smile) override {
        if (checkBuffer(image.bitmap.get())) return {};
        try {
            const auto known = RecentFaces::shared().find(image.bitmap);
            const RecentFaces::Entry examined = known ? *known : examine(image);
            // From the view in which the face was found to the picture as it is shown.
            const ViewTransform shown = viewForImageOrientation(image.orientation);
            const Size viewSize = viewSizeOf(*image.bitmap, examined.view);
            const Size shownSize = viewSizeOf(*image.bitmap, shown);
            std::vector<FaceFeature> features;
            for (const FoundFace& face : examined.faces) {
                const Rect inView{face.box.x / viewSize.width, face.box.y / viewSize.height,
                                  face.box.width / viewSize.width, face.box.height / viewSize.height};
                const Rect inPicture = shown.toView(examined.view.toBuffer(inView));
                features.push_back({{inPicture.x * shownSize.width, inPicture.y * shownSize.height,
                                     inPicture.width * shownSize.width, inPicture.height * shownSize.height},
                                    smile && isSmiling(face.points)});
            }
            return features;
        } catch (const std::exception&) {
            return {};
        }
    }

private:
    /// With an engine of its own, so that no picture waits for another.
    [[nodiscard]] RecentFaces::Entry examine(const Image& image) const {
        const ViewTransform view = viewForImageOrientation(image.orientation);
        const LoadedModels& models = models_.get();
        if (!models) return {};
        return {image.bitmap, view, VisionEngine(models.value(), refine_).findInPicture(*image.bitmap, view)};
    }

    const std::shared_future<LoadedModels> models_;
    const bool refine_;
};

}  // namespace

RecentFaces& RecentFaces::shared() {
    static RecentFaces* const faces = new RecentFaces;  // outlives every thread that may still analyse a frame at exit
    return *faces;
}

void RecentFaces::add(Entry entry) {
    const std::lock_guard lock(mutex_);
    entries_[next_] = std::move(entry);
    next_ = (next_ + 1) % entries_.size();
}

std::optional<RecentFaces::Entry> RecentFaces::find(const std::shared_ptr<const PixelBuffer>& buffer) const {
    const std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_) {
        // Compares owners, not addresses: an expired entry never equals a living buffer. Holding the buffer here could
        // make this the place where it is released.
        if (buffer && !entry.buffer.owner_before(buffer) && !buffer.owner_before(entry.buffer)) return entry;
    }
    return std::nullopt;
}

void preloadVisionModels(const VisionOptions& options) {
    (void)visionModels(options.detectionModelPath, options.meshModelPath);
}

std::optional<Error> waitForVisionModels(const VisionOptions& options) {
    const auto future = visionModels(options.detectionModelPath, options.meshModelPath);
    const LoadedModels& models = future.get();
    return models ? std::nullopt : std::optional<Error>(models.error());
}

std::shared_ptr<SequenceRequestHandler> makeSequenceRequestHandler(const VisionOptions& options) {
    return std::make_shared<MeshSequenceRequestHandler>(options);
}

std::shared_ptr<FaceDetector> makeFaceDetector(const VisionOptions& options) {
    return std::make_shared<MeshFaceDetector>(options);
}

}  // namespace selvio
