// Detectors that find what the test put there.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/FaceDetector.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>

#include <utility>

namespace selvio {

struct FakeSequenceRequestHandler final : SequenceRequestHandler {
    using Answer = std::function<Expected<FaceLandmarksResult>(const FaceLandmarksRequest&)>;

    Expected<FaceLandmarksResult> perform(const FaceLandmarksRequest& request) override {
        return mutex_.get(answer_)(request);
    }

    void setAnswer(Answer answer) { mutex_.set(answer_, std::move(answer)); }
    /// The answer to every request.
    void setObservations(std::vector<FaceObservation> faces) {
        setAnswer([faces = std::move(faces)](const auto&) { return FaceLandmarksResult{faces, std::nullopt}; });
    }

private:
    MemberMutex mutex_;
    Answer answer_ = [](const auto&) { return FaceLandmarksResult{}; };  // guarded by mutex_
};

struct FakeFaceDetector final : FaceDetector {
    using Answer = std::function<std::vector<FaceFeature>(const Image& image, bool smile)>;

    std::vector<FaceFeature> featuresInImage(const Image& image, bool smile) override {
        return mutex_.get(answer_)(image, smile);
    }
    void setAnswer(Answer answer) { mutex_.set(answer_, std::move(answer)); }

private:
    MemberMutex mutex_;
    Answer answer_ = [](const auto&...) { return std::vector<FaceFeature>(1); };  // guarded by mutex_
};

}  // namespace selvio
