// What reaches the host: statuses, countdown, the selected picture. Steps run on the main queue and read the results as they are then.
#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>
#include <SelvioFacialCapture/SelvioFacialCaptureUxpEventManager.h>

#include <utility>

#include "analyzer/AnalyzerState.h"

using namespace selvio;
using Analyzer = SelvioFacialCaptureAnalyzer;
using Statuses = std::vector<SelvioFacialCaptureStatus>;

namespace {

// The lighting statuses have no event of their own and are logged like a status outside the table.
SelvioFacialCaptureUxpEvent eventFor(SelvioFacialCaptureStatus status) {
    switch (status) {
        case SelvioFacialCaptureStatusFaceNotFound:
            return SelvioFacialCaptureUxpEventFaceNotFound;
        case SelvioFacialCaptureStatusMoreThanOneFace:
            return SelvioFacialCaptureUxpEventMoreThanOneFace;
        case SelvioFacialCaptureStatusFaceRoll:
            return SelvioFacialCaptureUxpEventFaceRoll;
        case SelvioFacialCaptureStatusFacePitch:
            return SelvioFacialCaptureUxpEventFacePitch;
        case SelvioFacialCaptureStatusFaceYaw:
            return SelvioFacialCaptureUxpEventFaceYaw;
        case SelvioFacialCaptureStatusMoveCloser:
            return SelvioFacialCaptureUxpEventMoveCloser;
        case SelvioFacialCaptureStatusTooClose:
            return SelvioFacialCaptureUxpEventTooClose;
        case SelvioFacialCaptureStatusNotCentered:
            return SelvioFacialCaptureUxpEventNotCentered;
        case SelvioFacialCaptureStatusHoldStill:
            return SelvioFacialCaptureUxpEventHoldStill;
        case SelvioFacialCaptureStatusCountdown:
            return SelvioFacialCaptureUxpEventCountdown;
        case SelvioFacialCaptureStatusStopSmiling:
            return SelvioFacialCaptureUxpEventStopSmiling;
        case SelvioFacialCaptureStatusGoodFrame:
            return SelvioFacialCaptureUxpEventGoodFrame;
        default:
            return SelvioFacialCaptureUxpEventStartAuto;
    }
}

}  // namespace

void Analyzer::submitToMainQueue(Step step) {
    state_->platform.mainQueue->async([weak = weak_from_this(), step] {
        if (const auto self = weak.lock()) (self.get()->*step)();
    });
}

void Analyzer::addUxpFor(const Statuses& statuses) {
    for (const SelvioFacialCaptureStatus status : statuses) addEvent(eventFor(status));
}

void Analyzer::deliverResults() {
    const auto current = results();
    const auto host = delegate();
    if (current && host && host->detectionResults) host->detectionResults(current);
}

void Analyzer::deliverCountdown() {
    const auto host = delegate();
    if (results() && host && host->startCountdown) host->startCountdown();
}

void Analyzer::deliverCountdownStatus() {
    const auto current = results();
    if (!current) return;
    const Statuses statuses{SelvioFacialCaptureStatusCountdown};
    current->setOrderedStatuses(statuses);
    addUxpFor(statuses);
    deliverResults();
}

// The host gets nothing if the capture was stopped while the picture was encoded.
void Analyzer::deliverSuccess(const std::shared_ptr<SelvioFacialCaptureResults>& selected) {
    const auto host = delegate();
    if (results() && host && host->detectionSuccess) host->detectionSuccess(selected);
}

void Analyzer::deliverResultsOrSelectManually() {
    const auto host = delegate();
    if (!state_->shouldSelectCurrentFrame || !host || !host->detectionSuccess) return deliverResults();
    if (state_->selectionInProgress.exchange(true)) return;
    const auto current = results();
    if (!current) return;
    current->setSelectedImage(state_->history.newest());
    current->setResultCode(SelvioFacialCaptureResultCodeSuccessStillCamera);
    finalizeObix(*current);
    deliverSuccess(current);
}

// The frame that triggered this is the newest of the history.
void Analyzer::deliverManually() {
    const auto current = results();
    if (!current) return;
    current->setSelectedImage(state_->history.newest());
    if (state_->manualOnly) {
        current->setOrderedStatuses(Statuses{SelvioFacialCaptureStatusNone});
    } else if (current->orderedStatuses().value_or(Statuses()).empty()) {
        current->setOrderedStatuses(Statuses{SelvioFacialCaptureStatusGoodFrame});
    }
    current->setResultCode(SelvioFacialCaptureResultCodeSuccessStillCamera);
    finalizeObix(*current);
    deliverSuccess(current);
}

void Analyzer::selectAutomatically() {
    // Several good frames may have asked for this before the first of them got here.
    if (state_->selectionInProgress.exchange(true)) return;
    const auto current = results();
    if (!current) return;
    current->setSelectedImage(state_->history.newest());
    current->setOrderedStatuses(Statuses{SelvioFacialCaptureStatusGoodFrame});
    current->setResultCode(SelvioFacialCaptureResultCodeSuccessVideo);
    finalizeObix(*current);
    deliverSuccess(current);
}

// The result code must be set before: it goes into the record, which goes into the picture.
void Analyzer::finalizeObix(SelvioFacialCaptureResults& results) {
    const auto settings = parameters();
    if (!settings) return;
    SelvioFacialCaptureObixData& record = *state_->obixData;
    const bool automatic = settings->mode() == SelvioFacialCaptureModeAuto;
    addEvent(automatic ? SelvioFacialCaptureUxpEventFinalizedAuto : SelvioFacialCaptureUxpEventFinalizedManual);
    record.addUXP(SelvioFacialCaptureUxpEventManager::sharedInstance()->events());
    record.add({{"Autocapture", automatic ? "1" : "0"}});
    record.add({{"SelvioResultCode", SelvioFacialCaptureResults::stringFrom(results.resultCode()).value_or("")}});
    results.setEncodedSelectedImage(record.addToImage(results.selectedImage(), static_cast<double>(settings->imageQuality())));
    results.setObixDataString(record.obixDataString());
}
