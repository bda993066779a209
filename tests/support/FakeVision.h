// Detectors that find what the test put there.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/FaceDetector.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>

#include <utility>

namespace selvio {

class FakeSequenceRequestHandler final : public SequenceRequestHandler {
public:
    struct Question {
        std::shared_ptr<const PixelBuffer> picture;
        std::uint32_t exifOrientation = 0;
        int revision = 0;
    };
    struct Answer {
        std::optional<std::vector<FaceObservation>> faces;
        std::optional<Error> requestError{};  ///< the request runs, but fails
        std::optional<Error> handlerError{};  ///< the request cannot be run
    };

    std::optional<Error> performRequests(const std::vector<std::shared_ptr<FaceLandmarksRequest>>& requests,
                                         const std::shared_ptr<const PixelBuffer>& pixelBuffer,
                                         std::uint32_t exifOrientation) override {
        for (const auto& request : requests) {
            const auto answer = mutex_.get(answer_)({pixelBuffer, exifOrientation, request->revision()});
            if (answer.handlerError) return answer.handlerError;
            request->complete(answer.faces, answer.requestError);
        }
        return std::nullopt;
    }

    void setAnswer(std::function<Answer(const Question&)> answer) { mutex_.set(answer_, std::move(answer)); }
    /// The answer to every request.
    void setObservations(std::optional<std::vector<FaceObservation>> faces) {
        setAnswer([faces = std::move(faces)](const auto&) { return Answer{faces}; });
    }

private:
    MemberMutex mutex_;
    std::function<Answer(const Question&)> answer_ = [](const auto&) { return Answer{}; };  // guarded by mutex_
};

class FakeFaceDetector final : public FaceDetector {
public:
    struct Answer {
        int faces = 1;
        bool smiling = false;  ///< each of them
    };

    [[nodiscard]] std::vector<FaceFeature> featuresInImage(const Image& image, bool smile) override {
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
