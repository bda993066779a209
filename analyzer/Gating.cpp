// From a detected face to a decision: mapped to screen points, checked, gated.
#include "analyzer/AnalyzerState.h"

using namespace selvio;
using Analyzer = SelvioFacialCaptureAnalyzer;

namespace {

std::size_t countOf(const std::optional<std::vector<Point>>& points) {
    return points ? points->size() : 0;
}

/// Says so if the checks cannot read a face because its points are not as many as they should be.
std::optional<std::string> unexpectedPointCounts(const rules::FacePoints& points) {
    const auto contour = countOf(points.contour);
    const auto nose = countOf(points.nose);
    const auto lips = countOf(points.outerLips);
    if ((contour == 17 || contour == 11) && nose == 9 && (lips == 14 || lips == 10)) return std::nullopt;
    return "A face came with " + std::to_string(contour) + " points of its contour, " + std::to_string(nose) +
           " of the nose and " + std::to_string(lips) +
           " of the lips: the checks read 17 (or 11), 9 and 14 (or 10), and a missing point as one at zero";
}

}  // namespace

void Analyzer::State::judgeDetection(const FaceLandmarksResult& found, Frame frame) {
    const auto settings = mutex.get(parameters);
    if (gateFlags().anySet() || !isCurrent(frame.run) || !settings) return;
    if (!frame.results) frame.results = replaceResultsByCopy(frame.run);  // a still image
    if (!frame.results) return;
    if (found.error) log("Detect face request error: " + found.error->localizedDescription);
    const auto judged =
        rules::judgeFaces(found.observations, mutex.get(geometry), rules::limitsOf(*settings), shouldHoldStill);
    if (judged.face) {
        if (!pointCountsLogged) {
            const auto unexpected = unexpectedPointCounts(judged.face->points);
            if (unexpected && !pointCountsLogged.exchange(true)) log(*unexpected);
        }
        frame.results->setFaceRect(judged.face->rect);
        frame.results->setFaceContourPoints(judged.face->points.contour);
        frame.results->setNosePoints(judged.face->points.nose);
        frame.results->setOuterLipsPoints(judged.face->points.outerLips);
        const std::lock_guard lock(mutex);
        face = judged.face->checked;
    }
    if (!judged.statuses.empty())
        return reportBadFrame(frame, judged.statuses,
                              judged.face ? &State::deliverReportOrSelect : &State::deliverReport);
    frame.results->setOrderedStatuses(Statuses());  // a still image's object still has those of the last frame
    gateGoodFrame(frame);
}

// A bad frame ends any countdown and forgets the smile.
void Analyzer::State::reportBadFrame(const Frame& frame, const Statuses& statuses, Step report) {
    frame.results->setOrderedStatuses(statuses);
    logStatuses(statuses, frame.run);
    {
        const std::lock_guard lock(mutex);
        if (currentRun != frame.run) return;
        smileStatus = 0;
        shouldStartCountdown = true;
    }
    deliver(DeliveryKind::Newest, report, frame);
}

void Analyzer::State::gateGoodFrame(const Frame& frame) {
    const auto settings = mutex.get(parameters);
    if (!settings) return;
    rules::GoodFrameInput input{
        .selectOnSmile = settings->selectOnSmile(),
        .mode = settings->mode(),
        .countdownTime = settings->countdownTime(),
    };
    rules::GoodFrameDecision decision = rules::GoodFrameDecision::Drop;
    {
        const std::lock_guard lock(mutex);
        if (currentRun != frame.run) return;
        input.flags = gateFlags();
        input.shouldSelectCurrentFrame = shouldSelectCurrentFrame;
        input.shouldStartCountdown = shouldStartCountdown;
        decision = rules::decideGoodFrame(input);
        if (decision == rules::GoodFrameDecision::AnnounceCountdown) {
            shouldStartCountdown = false;
            announcementWaits = true;
        }
        if (decision == rules::GoodFrameDecision::TestSmile) smileDetectionInProgress = true;
    }
    switch (decision) {
        case rules::GoodFrameDecision::Drop:
            return;
        case rules::GoodFrameDecision::TestSmile:
            return platform.globalQueue->async([weak = weak_from_this(), frame] {
                if (const auto self = weak.lock()) self->testSmile(frame);
            });
        case rules::GoodFrameDecision::SelectAutomatically:
            return deliver(DeliveryKind::First, &State::selectAutomatically, frame);
        case rules::GoodFrameDecision::AnnounceCountdown:
            return deliver(DeliveryKind::Newest, &State::deliverCountdown, frame);
        case rules::GoodFrameDecision::ReportCountdown:
            return deliver(DeliveryKind::Newest, &State::deliverCountdownStatus, frame);
    }
}

void Analyzer::State::testSmile(const Frame& frame) {
    SELVIO_ASSERT_ON_QUEUE(platform.globalQueue);
    if (!isCurrent(frame.run)) return;
    std::optional<Run> tested = frame.run;
    withoutThrowing("A smile could not be judged", [&] {
        const auto faces =
            faceDetector ? faceDetector->featuresInImage(*frame.image, /*smile=*/true) : std::vector<FaceFeature>();
        if (faces.size() == 1) tested = judgeSmile(frame, faces.front().hasSmile);
    });
    const std::lock_guard lock(mutex);
    if (currentRun == tested) smileDetectionInProgress = false;
}

auto Analyzer::State::judgeSmile(const Frame& frame, bool smiling) -> std::optional<Run> {
    const auto settings = mutex.get(parameters);
    if (!settings) return std::nullopt;
    rules::SmileJudgement judgement;
    {
        const std::lock_guard lock(mutex);
        if (currentRun != frame.run) return std::nullopt;
        judgement = rules::judgeSmile(smiling, smileStatus, settings->mode());
        smileStatus = judgement.smileStatus;
        // The flag stays set on purpose, and so keeps every later frame out until `resume` clears it.
        if (shouldSkipFrames) return std::nullopt;
    }
    const Statuses statuses{judgement.status};
    frame.results->setOrderedStatuses(statuses);
    logStatuses(statuses, frame.run);
    if (judgement.selection == rules::SmileSelection::None) {
        deliver(DeliveryKind::Newest, &State::deliverReportOrSelect, frame);
        return frame.run;
    }
    const std::optional<Run> selecting = beginSelection(frame);
    if (!selecting) return std::nullopt;
    const bool first = judgement.selection == rules::SmileSelection::OldestFrame;
    const Frame selected{
        .run = *selecting, .results = frame.results, .image = first ? history.oldest() : history.newest()};
    closeCapture(selected, SelvioFacialCaptureResultCodeSuccessVideo);
    deliver(DeliveryKind::Each, &State::deliverSuccess, selected);
    return selecting;
}
