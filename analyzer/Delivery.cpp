// What reaches the host: statuses, countdown, the selected picture. Steps run on the main queue and read the results as
// they are then.
#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>

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
        const auto self = weak.lock();
        if (!self) return;
        SELVIO_ASSERT_ON_QUEUE(self->state_->platform.mainQueue);
        withoutThrowing("A frame's result could not be delivered", [&] { (self.get()->*step)(); });
    });
}

void Analyzer::addUxpFor(const Statuses& statuses) {
    for (const SelvioFacialCaptureStatus status : statuses) addEvent(eventFor(status));
}

void Analyzer::deliverResults(const Results& results) {
    const auto host = delegate();
    if (results && host && host->detectionResults) host->detectionResults(results);
}

// The results as they are now: with a main queue that lags behind, those of a later frame.
void Analyzer::deliverCurrentResults() {
    deliverResults(results());
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
    deliverResults(current);
}

// The host gets nothing if the capture was ended while the picture was encoded.
void Analyzer::deliverSuccess(const Results& selected) {
    const auto host = delegate();
    if (results() && !state_->cancelling && host && host->detectionSuccess) host->detectionSuccess(selected);
}

void Analyzer::deliverResultsOrSelectManually() {
    const auto host = delegate();
    if (!state_->shouldSelectCurrentFrame || !host || !host->detectionSuccess) return deliverCurrentResults();
    if (state_->selectionInProgress.exchange(true)) return;
    const auto current = results();
    if (closeCapture(current, state_->history.newest(), SelvioFacialCaptureResultCodeSuccessStillCamera))
        deliverSuccess(current);
}

// The frame that triggered this is the newest of the history.
void Analyzer::deliverManually() {
    const auto current = results();
    if (!current) return;
    if (state_->manualOnly) {
        current->setOrderedStatuses(Statuses{SelvioFacialCaptureStatusNone});
    } else if (current->orderedStatuses().value_or(Statuses()).empty()) {
        current->setOrderedStatuses(Statuses{SelvioFacialCaptureStatusGoodFrame});
    }
    if (closeCapture(current, state_->history.newest(), SelvioFacialCaptureResultCodeSuccessStillCamera))
        deliverSuccess(current);
}

void Analyzer::selectAutomatically() {
    // Several good frames may have asked for this before the first of them got here.
    if (state_->selectionInProgress.exchange(true)) return;
    const auto current = results();
    if (!current) return;
    current->setOrderedStatuses(Statuses{SelvioFacialCaptureStatusGoodFrame});
    if (closeCapture(current, state_->history.newest(), SelvioFacialCaptureResultCodeSuccessVideo))
        deliverSuccess(current);
}

// The end of every selection; false if there is nothing to deliver, because the capture was stopped or cancelled
// before.
bool Analyzer::closeCapture(const Results& selected, std::optional<Image> image, SelvioFacialCaptureResultCode code) {
    const std::lock_guard lock(state_->closingMutex);
    if (!selected || !parameters() || state_->cancelling) return false;
    selected->setSelectedImage(std::move(image));
    selected->setResultCode(code);
    finalizeObix(*selected);
    return true;
}

// The result code must be set before: it goes into the record, which goes into the picture.
void Analyzer::finalizeObix(SelvioFacialCaptureResults& results) {
    const auto settings = parameters();
    if (!settings) return;
    const auto record = obixData();
    const bool automatic = settings->mode() == SelvioFacialCaptureModeAuto;
    addEvent(automatic ? SelvioFacialCaptureUxpEventFinalizedAuto : SelvioFacialCaptureUxpEventFinalizedManual);
    if (const auto log = events()) record->addUXP(*log);
    record->add({{"Autocapture", automatic ? "1" : "0"}});
    record->add({{"SelvioResultCode", SelvioFacialCaptureResults::stringFrom(results.resultCode()).value_or("")}});
    results.setEncodedSelectedImage(
        record->addToImage(results.selectedImage(), static_cast<double>(settings->imageQuality())));
    results.setObixDataString(record->obixDataString());
}
