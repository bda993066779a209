// Detectors that find what the test put there.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/FaceDetector.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>

#include <atomic>
#include <utility>

namespace selvio {

/// Answers every request with the observations that were set.
class FakeSequenceRequestHandler final : public SequenceRequestHandler {
public:
    std::optional<Error> performRequests(const std::vector<std::shared_ptr<FaceLandmarksRequest>>& requests,
                                         const std::shared_ptr<const PixelBuffer>& pixelBuffer,
                                         std::uint32_t exifOrientation) override {
        ++count_;
        lastOrientation_ = exifOrientation;
        if (const auto error = mutex_.get(handlerError_)) return error;
        lastSize_ = pixelBuffer ? pixelBuffer->width() : 0;
        const auto observations = mutex_.get(observations_);
        const auto requestError = mutex_.get(requestError_);
        if (const auto hook = mutex_.get(duringRequest_)) hook();
        for (const auto& request : requests) {
            lastRevision_ = request->revision();
            request->complete(observations, requestError);
        }
        return std::nullopt;
    }

    void setObservations(std::optional<std::vector<FaceObservation>> observations) {
        mutex_.set(observations_, std::move(observations));
    }
    /// The request runs, but fails.
    void setRequestError(std::optional<Error> error) { mutex_.set(requestError_, std::move(error)); }
    /// The request cannot be run.
    void setHandlerError(std::optional<Error> error) { mutex_.set(handlerError_, std::move(error)); }
    /// Called in the middle of each request, before it completes.
    void setDuringRequest(std::function<void()> hook) { mutex_.set(duringRequest_, std::move(hook)); }

    [[nodiscard]] int count() const { return count_; }
    [[nodiscard]] int lastRevision() const { return lastRevision_; }
    [[nodiscard]] int lastWidth() const { return lastSize_; }
    [[nodiscard]] std::uint32_t lastOrientation() const { return lastOrientation_; }

private:
    MemberMutex mutex_;
    std::optional<std::vector<FaceObservation>> observations_;  // guarded by mutex_
    std::optional<Error> requestError_;                         // guarded by mutex_
    std::optional<Error> handlerError_;                         // guarded by mutex_
    std::function<void()> duringRequest_;                       // guarded by mutex_
    std::atomic<int> count_{0};
    std::atomic<int> lastRevision_{0};
    std::atomic<int> lastSize_{0};
    std::atomic<std::uint32_t> lastOrientation_{0};
};

/// Finds `faces` faces, each with the smile that was set.
class FakeFaceDetector final : public FaceDetector {
public:
    [[nodiscard]] std::vector<FaceFeature> featuresInImage(const Image&, bool smile) override {
        return std::vector<FaceFeature>(static_cast<std::size_t>(faces_),
                                        FaceFeature{.bounds = {}, .hasSmile = smile && smiling_});
    }
    void setFaces(int faces) { faces_ = faces; }
    void setSmiling(bool smiling) { smiling_ = smiling; }

private:
    std::atomic<int> faces_{1};
    std::atomic<bool> smiling_{false};
};

}  // namespace selvio
