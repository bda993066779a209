// A frame's way into the analyzer: admitted, copied once, kept, detected.
#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>
#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/base/Log.h>

#include <limits>
#include <new>
#include <utility>

#include "analyzer/AnalyzerState.h"

using namespace selvio;
using Analyzer = SelvioFacialCaptureAnalyzer;

namespace {

constexpr std::size_t kLiveHistoryLimit = 14;
constexpr std::size_t kStillHistoryLimit = 5;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
constexpr std::uint32_t kStillImageOrientation = 5;

int landmarksRevision(int serviceLevel) {
    return serviceLevel >= 13 ? 3 : 2;
}

}  // namespace

void Analyzer::analyzeSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer) {
    if (!sampleBuffer || state_->inProgress.exchange(true)) return;
    FrameId id = kNoFrame;
    try {
        auto copy = SelvioFacialCaptureImageUtilities::copySampleBuffer(sampleBuffer, *state_->framePool);
        {
            const std::lock_guard lock(state_->mutex);
            state_->sampleBuffer.swap(copy);
            id = state_->heldFrame = ++state_->lastFrame;
        }
        state_->analysisQueue->async([weak = weak_from_this(), id] {
            const auto self = weak.lock();
            if (self && !withoutThrowing("A frame could not be analysed", [&] { self->analyzeHeldFrame(id); }))
                self->releaseSampleBuffer(id);
        });
    } catch (const std::bad_alloc&) {  // this frame is dropped; the next one may do better
        log("A frame could not be taken: not enough memory");
        if (id == kNoFrame) state_->inProgress = false;
        releaseSampleBuffer(id);
    }
}

void Analyzer::analyzeHeldFrame(FrameId id) {
    SELVIO_ASSERT_ON_QUEUE(state_->analysisQueue);
    State& s = *state_;
    const auto frame = s.mutex.get(s.sampleBuffer);
    const auto parameters = this->parameters();
    const std::shared_ptr<PixelBuffer> pixelBuffer = frame ? frame->imageBuffer() : nullptr;
    if (!pixelBuffer || !parameters) return releaseSampleBuffer(id);

    const std::optional<Image> image = SelvioFacialCaptureImageUtilities::imageFromSampleBuffer(frame);
    if (!image) return releaseSampleBuffer(id);
    s.mutex.set(s.ciImage, image);
    s.history.append(*image, s.selectionInProgress ? kNoLimit : kLiveHistoryLimit);

    const bool manual = s.manualOnly || parameters->mode() == SelvioFacialCaptureModeManual;
    const auto host = delegate();
    if (manual && s.shouldSelectCurrentFrame && host && host->detectionSuccess &&
        !s.selectionInProgress.exchange(true)) {
        releaseSampleBuffer(id);
        submitToMainQueue(&Analyzer::deliverManually);
    }

    if (!s.canAnalyze() || s.gateFlags().anySet() || s.manualOnly) {
        return releaseSampleBuffer(id);
    }

    auto results = std::make_shared<SelvioFacialCaptureResults>();
    results->setOrderedStatuses(std::vector<SelvioFacialCaptureStatus>());
    {
        const std::lock_guard lock(s.mutex);
        if (s.results) s.results.swap(results);  // once spent there are none
        if (s.geometry.resolution == Size{}) {
            s.geometry.setResolution({.width = static_cast<double>(pixelBuffer->width()),
                                      .height = static_cast<double>(pixelBuffer->height())});
        }
    }
    s.exifOrientation = exifOrientationForCurrentDeviceOrientation();
    performLandmarksRequest(pixelBuffer, s.exifOrientation, id);
}

void Analyzer::performLandmarksRequest(const std::shared_ptr<const PixelBuffer>& pixelBuffer,
                                       std::uint32_t exifOrientation, FrameId id) {
    // The handler calls back before it returns, while the caller holds this.
    const auto request = std::make_shared<FaceLandmarksRequest>(
        [this, id](const FaceLandmarksRequest& done, const std::optional<Error>& error) {
            // The frame goes before its result is judged, so that the next one may come in meanwhile.
            releaseSampleBuffer(id);
            detectedFace(done, error);
        });
    request->setRevision(landmarksRevision(state_->platform.serviceLevel));
    const std::lock_guard lock(state_->visionMutex);
    const auto error = state_->sequenceRequestHandler->performRequests({request}, pixelBuffer, exifOrientation);
    if (error) log("SequenceRequestHandler couldn't perform requests: " + error->localizedDescription);
    releaseSampleBuffer(id);
}

// Gives back the frame and opens the latch. Only the frame that is held can be given back: a second call for one that
// has gone changes nothing, so that the next frame keeps its place.
void Analyzer::releaseSampleBuffer(FrameId id) {
    std::shared_ptr<SampleBuffer> released;
    const std::lock_guard lock(state_->mutex);
    if (id == kNoFrame || state_->heldFrame != id) return;
    state_->heldFrame = kNoFrame;
    released.swap(state_->sampleBuffer);
    state_->inProgress = false;
}

void Analyzer::detectedFace(const FaceLandmarksRequest& request, const std::optional<Error>& error) {
    const auto current = results();
    if (state_->gateFlags().anySet() || !current) return;
    if (error) log("Detect face request error: " + error->localizedDescription);
    const auto& observations = request.results();
    if (!observations || observations->empty()) {
        reportStatuses(*current, {SelvioFacialCaptureStatusFaceNotFound});
    } else if (observations->size() > 1) {
        reportStatuses(*current, {SelvioFacialCaptureStatusMoreThanOneFace});
    } else {
        normalizeFaceLandmarkPointsFrom(observations->front(), *current);
        analyzeFaceLandmarkPoints(*current);
    }
}

void Analyzer::reportStatuses(SelvioFacialCaptureResults& results,
                              const std::vector<SelvioFacialCaptureStatus>& statuses) {
    results.setOrderedStatuses(statuses);
    addUxpFor(statuses);
    submitToMainQueue(&Analyzer::deliverCurrentResults);
}

void Analyzer::analyzeImageAtPath(const std::string& path) {
    State& s = *state_;
    if (!s.canAnalyze() || !s.platform.imageLoader || !results()) return;
    const auto picture = s.platform.imageLoader->loadImage(path);
    if (!picture) return log(picture.error().localizedDescription);
    const std::shared_ptr<PixelBuffer>& pixels = picture.value();
    if (!pixels) return;
    const Image image{.bitmap = pixels};
    const Size extent{.width = static_cast<double>(pixels->width()), .height = static_cast<double>(pixels->height())};
    {
        const std::lock_guard lock(s.mutex);
        s.ciImage = image;
        s.geometry.setScreen(extent);
        s.geometry.setResolution(extent);
    }
    s.history.append(image, kStillHistoryLimit);
    performLandmarksRequest(pixels, kStillImageOrientation, kNoFrame);
}
