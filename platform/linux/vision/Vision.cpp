#include "platform/linux/vision/LandmarkLayout.h"
#include "platform/linux/vision/Smile.h"
#include "platform/linux/vision/VisionEngine.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <dlfcn.h>

#include <exception>
#include <filesystem>
#include <future>
#include <map>
#include <mutex>
#include <utility>

namespace selvio {
namespace {

using LoadedModels = Expected<std::shared_ptr<const VisionModels>>;

template <typename Part>
Expected<std::shared_ptr<const Part>> loadPart(const std::string& path) {
    std::string reason;
    try {
        auto model = readModel(path);
        if (model) {
            auto part = Part::make(std::move(model.value()));
            if (part) return part;
            reason = path + " cannot be used: " + part.error().localizedDescription;
        } else {
            reason = model.error().localizedDescription;
        }
    } catch (const std::exception& exception) {
        reason = path + " cannot be loaded: " + exception.what();
    }
    return Error{reason + "; scripts/install-deps.sh installs the face models"};
}

LoadedModels loadModels(const std::string& detectionPath, const std::string& meshPath) {
    const auto detection = loadPart<FaceDetection>(detectionPath);
    if (!detection) return detection.error();
    const auto mesh = loadPart<FaceMesh>(meshPath);
    if (!mesh) return mesh.error();
    return std::make_shared<const VisionModels>(VisionModels{detection.value(), mesh.value()});
}

bool hasFailed(const std::shared_future<LoadedModels>& models) {
    return models.wait_for(std::chrono::seconds(0)) == std::future_status::ready && !models.get();
}

/// Being loaded, loaded or failed, each once a process. What failed is tried again at the next call. Any thread.
std::shared_future<LoadedModels> visionModels(const VisionOptions& options) {
    static std::mutex mutex;
    static std::map<std::pair<std::string, std::string>, std::shared_future<LoadedModels>> loaded;  // guarded by mutex
    const std::lock_guard lock(mutex);
    auto& models = loaded[{options.detectionModelPath, options.meshModelPath}];
    if (!models.valid() || hasFailed(models)) {
        models = std::async(std::launch::async, [detection = options.detectionModelPath, mesh = options.meshModelPath] {
                     return loadModels(detection, mesh);
                 }).share();
    }
    return models;
}

/// The faces of the frames examined last, so that one frame is not examined twice.
/// Any thread. Does not keep the pixel buffers alive.
class RecentFaces {
public:
    struct Entry {
        std::weak_ptr<const PixelBuffer> buffer;
        ViewTransform view;
        std::vector<FoundFace> faces;  ///< in pixels of the view
    };

    /// The one of the process.
    static RecentFaces& shared() {
        static auto* const faces = new RecentFaces;  // outlives every thread that may still analyse a frame at exit
        return *faces;
    }

    void add(Entry entry) {
        const std::lock_guard lock(mutex_);
        entries_[next_] = std::move(entry);
        next_ = (next_ + 1) % entries_.size();
    }

    [[nodiscard]] std::optional<Entry> find(const std::shared_ptr<const PixelBuffer>& buffer) const {
        const std::lock_guard lock(mutex_);
        for (const Entry& entry : entries_) {
            // Compares owners, not addresses: an expired entry never equals a living buffer. Holding the buffer here
            // could make this the place where it is released.
            if (buffer && !entry.buffer.owner_before(buffer) && !buffer.owner_before(entry.buffer)) return entry;
        }
        return std::nullopt;
    }

private:
    mutable std::mutex mutex_;
    std::array<Entry, 4> entries_;  // guarded by mutex_
    std::size_t next_ = 0;          // guarded by mutex_
};

std::optional<Error> checkBuffer(const PixelBuffer* buffer) {
    if (!buffer) return Error{"There is no pixel buffer to look for faces in"};
    if (!buffer->isReadable()) return Error{"A pixel buffer of this size or format cannot be searched for faces"};
    return std::nullopt;
}

class MeshSequenceRequestHandler final : public SequenceRequestHandler {
public:
    explicit MeshSequenceRequestHandler(const VisionOptions& options)
        : models_(visionModels(options)),
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
        : models_(visionModels(options)), refine_(options.refineLandmarks) {}

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

std::string defaultVisionModelPath(const std::string& fileName) {
    // The library may have been moved together with what was installed beside it.
    Dl_info library{};
    std::error_code code;
    std::filesystem::path start;
    if (dladdr(reinterpret_cast<const void*>(&defaultVisionModelPath), &library) != 0 && library.dli_fname)
        // The loader may have come by a link: /lib leads to /usr/lib.
        start = std::filesystem::weakly_canonical(library.dli_fname, code).parent_path();
    const auto relative = std::filesystem::path("share/SelvioFacialCapture/models") / fileName;
    for (auto directory = start.parent_path(); directory.has_relative_path(); directory = directory.parent_path()) {
        if (std::filesystem::exists(directory / relative, code)) return directory / relative;
    }
    return start.parent_path() / relative;
}

void preloadVisionModels(const VisionOptions& options) {
    (void)visionModels(options);
}

std::optional<Error> waitForVisionModels(const VisionOptions& options) {
    const auto future = visionModels(options);
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
