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
    Expected<FaceLandmarksResult> perform(const FaceLandmarksRequest& request) override {
        if (const auto hook = mutex_.get(duringRequest_)) hook(request);
        if (const auto error = mutex_.get(handlerError_)) return *error;
        return FaceLandmarksResult{mutex_.get(observations_), mutex_.get(requestError_)};
    }

    void setObservations(std::vector<FaceObservation> observations) {
        mutex_.set(observations_, std::move(observations));
    }
    /// The request runs, but fails.
    void setRequestError(std::optional<Error> error) { mutex_.set(requestError_, std::move(error)); }
    /// The request cannot be run.
    void setHandlerError(std::optional<Error> error) { mutex_.set(handlerError_, std::move(error)); }
    /// Called first in each request.
    void setDuringRequest(std::function<void(const FaceLandmarksRequest&)> hook) {
        mutex_.set(duringRequest_, std::move(hook));
    }

private:
    MemberMutex mutex_;
    std::vector<FaceObservation> observations_;                       // guarded by mutex_
    std::optional<Error> requestError_;                               // guarded by mutex_
    std::optional<Error> handlerError_;                               // guarded by mutex_
    std::function<void(const FaceLandmarksRequest&)> duringRequest_;  // guarded by mutex_
};

/// Finds `faces` faces, each with the smile that was set.
class FakeFaceDetector final : public FaceDetector {
public:
    [[nodiscard]] std::vector<FaceFeature> featuresInImage(const Image& image, bool smile) override {
        if (const auto hook = mutex_.get(duringTest_)) hook(image);
        return std::vector<FaceFeature>(static_cast<std::size_t>(faces_),
                                        FaceFeature{.bounds = {}, .hasSmile = smile && smiling_});
    }
    void setFaces(int faces) { faces_ = faces; }
    void setSmiling(bool smiling) { smiling_ = smiling; }
    /// Called first in every test, with the picture that is tested.
    void setDuringTest(std::function<void(const Image&)> hook) { mutex_.set(duringTest_, std::move(hook)); }

private:
    MemberMutex mutex_;
    std::function<void(const Image&)> duringTest_;  // guarded by mutex_
    std::atomic<int> faces_{1};
    std::atomic<bool> smiling_{false};
};

}  // namespace selvio
