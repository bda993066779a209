// How a frame enters the analyzer: admitted, copied once, kept, detected.
#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>

#include <utility>

#include "analyzer/AnalyzerState.h"

using namespace selvio;
using Analyzer = SelvioFacialCaptureAnalyzer;

namespace {

constexpr std::size_t kLiveHistoryLimit = 14;
constexpr std::size_t kHistoryLimitWhileSelecting = 2 * kLiveHistoryLimit;
constexpr std::size_t kStillHistoryLimit = 5;
constexpr std::uint32_t kStillImageOrientation = 5;

int landmarksRevision(int serviceLevel) {
    return serviceLevel >= 13 ? 3 : 2;
}

}  // namespace

void Analyzer::State::analyzeSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer) {
    if (!sampleBuffer || ended || inProgress->exchange(true)) return;
    withoutThrowing("A frame could not be taken", [&] {
        // The deleter also runs if the reference cannot be made.
        std::shared_ptr<void> latch(inProgress.get(), [latch = inProgress](void*) { *latch = false; });
        const auto held = std::make_shared<HeldFrame>();
        held->latch = std::move(latch);
        held->buffer = SelvioFacialCaptureImageUtilities::copySampleBuffer(sampleBuffer, *framePool);
        analysisQueue->async([weak = weak_from_this(), held] {
            const auto self = weak.lock();
            if (self) withoutThrowing("A frame could not be analysed", [&] { self->analyzeHeldFrame(*held); });
            held->release();
        });
    });
}

void Analyzer::State::analyzeHeldFrame(HeldFrame& held) {
    SELVIO_ASSERT_ON_QUEUE(analysisQueue);
    Frame frame{.run = runOfNewFrame()};
    const std::shared_ptr<PixelBuffer> pixelBuffer = held.buffer ? held.buffer->imageBuffer() : nullptr;
    const auto settings = mutex.get(parameters);
    if (!pixelBuffer || !settings) return;
    frame.image = SelvioFacialCaptureImageUtilities::imageFromSampleBuffer(held.buffer);
    if (!frame.image) return;
    history.append(*frame.image, selectionInProgress ? kHistoryLimitWhileSelecting : kLiveHistoryLimit);

    const bool manual = manualOnly || settings->mode() == SelvioFacialCaptureModeManual;
    if (manual && shouldSelectCurrentFrame && implementsDetectionSuccess(frame.run)) {
        if (const auto selecting = beginSelection(frame)) {
            held.release();
            frame.run = *selecting;
            frame.results = replaceResultsByCopy(*selecting);
            if (!frame.results) return;
            return deliver(DeliveryKind::Each, &State::deliverManually, frame);
        }
    }
    if (!canAnalyze() || gateFlags().anySet() || manualOnly) return;

    frame.results = std::make_shared<SelvioFacialCaptureResults>();
    frame.results->setOrderedStatuses(Statuses());
    bool landscape = false;
    Results replaced = frame.results;  // outlives the lock
    {
        const std::lock_guard lock(mutex);
        if (currentRun != frame.run) return;
        results.swap(replaced);
        if (geometry.resolution == Size{}) {
            geometry.setResolution({.width = static_cast<double>(pixelBuffer->width()),
                                    .height = static_cast<double>(pixelBuffer->height())});
            landscape = pixelBuffer->width() > pixelBuffer->height();
        }
    }
    if (landscape)
        log("Frames of " + std::to_string(pixelBuffer->width()) + " x " + std::to_string(pixelBuffer->height()) +
            " pixels lie on their side: the checks read upright portrait frames, and no face will pass them");
    exifOrientation = exifOrientationOfDevice();
    detectFaces(*sequenceRequestHandler, {.pixelBuffer = pixelBuffer, .exifOrientation = exifOrientation}, frame,
                &held);
}

// The newest results, in an object that no delegate has been given.
auto Analyzer::State::replaceResultsByCopy(Run run) -> Results {
    Results replaced;  // outlives the lock
    const std::lock_guard lock(mutex);
    if (currentRun != run || !results) return nullptr;
    replaced = std::exchange(results, results->withoutSelection());
    return results;
}

void Analyzer::State::analyzeImageAtPath(const std::string& path) {
    if (!canAnalyze() || !platform.imageLoader || ended) return;
    const auto picture = platform.imageLoader->loadImage(path);
    if (!picture) return log(picture.error().localizedDescription);
    const std::shared_ptr<PixelBuffer>& pixels = picture.value();
    if (!pixels || ended) return;
    const Frame frame{.run = runOfNewFrame(), .image = Image{.bitmap = pixels}};
    const Size extent{.width = static_cast<double>(pixels->width()), .height = static_cast<double>(pixels->height())};
    {
        const std::lock_guard lock(mutex);
        geometry.setScreen(extent);
        geometry.setResolution(extent);
    }
    history.append(*frame.image, kStillHistoryLimit);
    // A handler of its own: one handler serves one thread at a time, and the other one is the analysis queue's.
    if (const auto handler = platform.makeSequenceRequestHandler())
        detectFaces(*handler, {.pixelBuffer = pixels, .exifOrientation = kStillImageOrientation, .isStillImage = true},
                    frame, nullptr);
}

void Analyzer::State::detectFaces(SequenceRequestHandler& handler, FaceLandmarksRequest request, const Frame& frame,
                                  HeldFrame* held) {
    request.revision = landmarksRevision(platform.serviceLevel);
    const auto found = handler.perform(request);
    if (!found) return log("SequenceRequestHandler couldn't perform requests: " + found.error().localizedDescription);
    // The frame is released before its result is judged, so that the next one may come in meanwhile.
    if (held) held->release();
    judgeDetection(found.value(), frame);
}
