// What reaches the host: statuses, countdown, the selected picture. Steps run on the main queue, each for its own
// frame.
#include <utility>

#include "analyzer/AnalyzerState.h"
#include "analyzer/rules/StatusEvents.h"

using namespace selvio;
using Analyzer = SelvioFacialCaptureAnalyzer;

void Analyzer::State::deliver(DeliveryKind kind, Step step, const Frame& frame) {
    std::list<Deliveries<Frame, Step>::Delivery> replaced;  // outlives the lock
    {
        const std::lock_guard lock(mutex);
        if (!deliveries.add(kind, {.step = step, .frame = frame}, replaced)) return;
    }
    const auto runFirst = [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        SELVIO_ASSERT_ON_QUEUE(self->platform.mainQueue);
        std::unique_lock lock(self->mutex);
        const auto first = self->deliveries.takeFirst();
        lock.unlock();
        for (const auto& delivery : first)
            withoutThrowing("A frame's result could not be delivered", [&] { (*self.*delivery.step)(delivery.frame); });
    };
    try {
        platform.mainQueue->async(runFirst);
    } catch (const std::bad_alloc&) {
        const std::lock_guard lock(mutex);
        deliveries.dropLast();
        throw;
    }
}

void Analyzer::State::deliverReport(const Frame& frame) {
    tell(frame.run, &Delegate::detectionResults, frame.results);
}

void Analyzer::State::deliverReportOrSelect(const Frame& frame) {
    if (!shouldSelectCurrentFrame || !implementsDetectionSuccess(frame.run)) return deliverReport(frame);
    select(frame, SelvioFacialCaptureResultCodeSuccessStillCamera, frame.results->orderedStatuses());
}

void Analyzer::State::deliverCountdown(const Frame& frame) {
    const auto call = ActiveCall::begin(*this, frame.run);
    if (!call) return;
    mutex.set(announcementWaits, false);
    const auto host = mutex.get(delegate).lock();
    if (host && host->startCountdown) host->startCountdown();
}

void Analyzer::State::deliverCountdownStatus(const Frame& frame) {
    if (!isCurrent(frame.run)) return;
    const Statuses statuses{rules::statusOf(rules::GoodFrameDecision::ReportCountdown)};
    frame.results->setOrderedStatuses(statuses);
    logStatuses(statuses, frame.run);
    deliverReport(frame);
}

void Analyzer::State::selectAutomatically(const Frame& frame) {
    select(frame, SelvioFacialCaptureResultCodeSuccessVideo,
           Statuses{rules::statusOf(rules::GoodFrameDecision::SelectAutomatically)});
}

void Analyzer::State::select(const Frame& frame, SelvioFacialCaptureResultCode code,
                             const std::optional<Statuses>& statuses) {
    const std::optional<Run> selecting = beginSelection(frame);
    if (!selecting) return;
    frame.results->setOrderedStatuses(statuses);
    const Frame selected{.run = *selecting, .results = frame.results, .image = frame.image};
    closeCapture(selected, code);
    deliverSuccess(selected);
}

void Analyzer::State::deliverManually(const Frame& frame) {
    if (!isCurrent(frame.run)) return;
    frame.results->setOrderedStatuses(
        rules::statusesOfManualSelection(manualOnly, frame.results->orderedStatuses().value_or(Statuses())));
    closeCapture(frame, SelvioFacialCaptureResultCodeSuccessStillCamera);
    deliverSuccess(frame);
}

void Analyzer::State::deliverSuccess(const Frame& frame) {
    tell(frame.run, &Delegate::detectionSuccess, frame.results);
}

void Analyzer::State::closeCapture(const Frame& selected, SelvioFacialCaptureResultCode code) {
    const auto settings = mutex.get(parameters);
    if (!settings) return;
    const bool automatic = settings->mode() == SelvioFacialCaptureModeAuto;
    logEvent(automatic ? SelvioFacialCaptureUxpEventFinalizedAuto : SelvioFacialCaptureUxpEventFinalizedManual,
             selected.run);
    const auto events = loggedEvents(selected.run);
    std::shared_ptr<SelvioFacialCaptureObixData> record;
    {
        // `cancel` adds its own entries once it has ended the run: never both.
        const std::lock_guard lock(mutex);
        if (currentRun != selected.run || !events) return;
        record = obixData;
        record->addUXP(*events);
        record->add({{"Autocapture", automatic ? "1" : "0"}});
        record->add({{"SelvioResultCode", SelvioFacialCaptureResults::stringFrom(code).value_or("")}});
    }
    SelvioFacialCaptureResults& filled = *selected.results;
    filled.setSelectedImage(selected.image);
    filled.setResultCode(code);
    // The host gets its picture even if the photograph cannot be made of it.
    withoutThrowing("The selected image could not be encoded", [&] {
        filled.setEncodedSelectedImage(
            record->addToImage(selected.image, static_cast<double>(settings->imageQuality())));
    });
    withoutThrowing("The data record could not be written",
                    [&] { filled.setObixDataString(record->obixDataString()); });
}

void Analyzer::State::logStatuses(const Statuses& statuses, Run run) {
    for (const SelvioFacialCaptureStatus status : statuses) logEvent(rules::eventFor(status), run);
}

// `stop` waits for this, so that no event of this capture enters the next one's log. From inside a delegate call it
// does not wait: hence the log is fetched first, and a late event enters the old one.
void Analyzer::State::logEvent(SelvioFacialCaptureUxpEvent event, std::optional<Run> run) {
    if (run ? !isCurrent(*run) : ended.load()) return;
    const auto events = SelvioFacialCaptureUxpEventManager::sharedInstance();
    const auto logging = ActiveCall::begin(*this, run);
    if (!logging) return;
    joinEventLog();
    events->addEvent(event);
}

std::optional<nlohmann::json> Analyzer::State::loggedEvents(Run run) {
    const auto reading = ActiveCall::begin(*this, run);
    if (!reading) return std::nullopt;
    return SelvioFacialCaptureUxpEventManager::sharedInstance()->events();
}
