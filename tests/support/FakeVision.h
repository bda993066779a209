// Detectors that find what the test put there.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/FaceDetector.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>

#include <utility>

namespace selvio {

class FakeSequenceRequestHandler final : public SequenceRequestHandler {
public:
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

class FakeFaceDetector final : public FaceDetector {
public:
    struct Answer {
        int faces = 1;
        bool smiling = false;  ///< each of them
    };

    std::vector<FaceFeature> featuresInImage(const Image& image, bool smile) override {
        const Answer answer = mutex_.get(answer_)(image);
        return std::vector<FaceFeature>(static_cast<std::size_t>(answer.faces),
                                        FaceFeature{.bounds = {}, .hasSmile = smile && answer.smiling});
    }
    void setAnswer(std::function<Answer(const Image&)> answer) { mutex_.set(answer_, std::move(answer)); }

private:
    MemberMutex mutex_;
    std::function<Answer(const Image&)> answer_ = [](const auto&) { return Answer{}; };  // guarded by mutex_
};

}  // namespace selvio
