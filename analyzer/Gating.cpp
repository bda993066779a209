// From a detected face to a decision: mapped to screen points, checked, gated.
#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>

#include "analyzer/AnalyzerState.h"
#include "analyzer/rules/FaceChecks.h"

using namespace selvio;
using Analyzer = SelvioFacialCaptureAnalyzer;
using Statuses = std::vector<SelvioFacialCaptureStatus>;

void Analyzer::normalizeFaceLandmarkPointsFrom(const FaceObservation& observation,
                                               SelvioFacialCaptureResults& results) const {
    const FaceLandmarks landmarks = observation.landmarks.value_or(FaceLandmarks{});
    const Rect rect = state_->mutex.get(state_->geometry).faceRect(observation.boundingBox);
    results.setFaceRect(rect);
    results.setFaceContourPoints(rules::landmarkInAdjustedRect(landmarks.faceContour, rect));
    results.setNosePoints(rules::landmarkInAdjustedRect(landmarks.nose, rect));
    results.setOuterLipsPoints(rules::landmarkInAdjustedRect(landmarks.outerLips, rect));
}

void Analyzer::analyzeFaceLandmarkPoints(SelvioFacialCaptureResults& results) {
    State& s = *state_;
    const auto settings = parameters();
    if (s.gateFlags().anySet() || !settings) return;
    results.setOrderedStatuses(Statuses());

    const rules::PreviewGeometry geometry = s.mutex.get(s.geometry);
    const rules::FaceChecksResult checked = rules::checkFace({
        .points = {.contour = results.faceContourPoints(),
                   .nose = results.nosePoints(),
                   .outerLips = results.outerLipsPoints()},
        .limits = {.roll = settings->roll(),
                   .pitch = settings->pitch(),
                   .yaw = settings->yaw(),
                   .minFill = settings->minFill(),
                   .maxFill = settings->maxFill()},
        .biggerScreenSide = geometry.biggerScreenSide,
        .smallerScreenSide = geometry.smallerScreenSide,
        .shouldHoldStill = s.shouldHoldStill,
    });
    {
        const std::lock_guard lock(s.mutex);
        s.noseMiddle = checked.noseMiddle;
        s.lipLeft = checked.lipLeft;
        s.lipRight = checked.lipRight;
        s.faceHorizontalFill = checked.measures.horizontalFill;
    }
    results.setOrderedStatuses(checked.statuses);
    if (checked.statuses.empty()) return gateGoodFrame();

    // A bad frame ends any countdown and forgets the smile.
    addUxpFor(checked.statuses);
    s.smileStatus = 0;
    s.shouldStartCountdown = true;
    submitToMainQueue(&Analyzer::deliverResultsOrSelectManually);
}

void Analyzer::gateGoodFrame() {
    State& s = *state_;
    const auto settings = parameters();
    if (!settings) return;
    const rules::GoodFrameDecision decision = rules::decideGoodFrame({
        .flags = s.gateFlags(),
        .shouldSelectCurrentFrame = s.shouldSelectCurrentFrame,
        .shouldStartCountdown = s.shouldStartCountdown,
        .selectOnSmile = settings->selectOnSmile(),
        .mode = settings->mode(),
        .countdownTime = settings->countdownTime(),
    });
    switch (decision) {
        case rules::GoodFrameDecision::Drop:
            return;
        case rules::GoodFrameDecision::TestSmile: {
            s.smileDetectionInProgress = true;
            // Frames go on being kept meanwhile; the test is about this one.
            const std::optional<Image> image = s.mutex.get(s.ciImage);
            s.platform.globalQueue->async([weak = weak_from_this(), image] {
                if (const auto self = weak.lock())
                    withoutThrowing("A smile could not be judged", [&] { self->testSmile(image); });
            });
            return;
        }
        case rules::GoodFrameDecision::SelectAutomatically:
            return submitToMainQueue(&Analyzer::selectAutomatically);
        case rules::GoodFrameDecision::AnnounceCountdown:
            s.shouldStartCountdown = false;
            return submitToMainQueue(&Analyzer::deliverCountdown);
        case rules::GoodFrameDecision::ReportCountdown:
            return submitToMainQueue(&Analyzer::deliverCountdownStatus);
    }
}

void Analyzer::testSmile(const std::optional<Image>& image) {
    State& s = *state_;
    SELVIO_ASSERT_ON_QUEUE(s.platform.globalQueue);
    const auto current = results();
    const auto settings = parameters();
    const auto faces =
        image && s.faceDetector ? s.faceDetector->featuresInImage(*image, /*smile=*/true) : std::vector<FaceFeature>();
    if (faces.size() != 1 || !current || !settings) {
        s.smileDetectionInProgress = false;
        return;
    }
    const rules::SmileJudgement judgement = rules::judgeSmile(faces.front().hasSmile, s.smileStatus, settings->mode());
    std::int64_t untested = 0;  // only the first test of a run says how it began
    s.smileStatus.compare_exchange_strong(untested, judgement.smileStatus);
    // Stays set on purpose, and so keeps every later frame out until `resume` clears it.
    if (s.selectionInProgress || s.shouldSkipFrames) return;

    const Statuses statuses{judgement.askToStopSmiling ? SelvioFacialCaptureStatusStopSmiling
                                                       : SelvioFacialCaptureStatusGoodFrame};
    current->setOrderedStatuses(statuses);
    addUxpFor(statuses);
    if (judgement.selection == rules::SmileSelection::None) {
        submitToMainQueue(&Analyzer::deliverResultsOrSelectManually);
    } else if (!s.selectionInProgress.exchange(true)) {
        auto image =
            judgement.selection == rules::SmileSelection::OldestFrame ? s.history.oldest() : s.history.newest();
        if (closeCapture(current, std::move(image), SelvioFacialCaptureResultCodeSuccessVideo)) {
            s.platform.mainQueue->async([weak = weak_from_this(), current] {
                if (const auto self = weak.lock()) self->deliverSuccess(current);
            });
        }
    }
    s.smileDetectionInProgress = false;
}
