#include <string>

#include "c/Support.h"

using namespace selvio::c;

namespace {

using HostCallbacks = Replaceable<selvio_analyzer_callbacks>::Shared;
using Results = SelvioFacialCaptureAnalyzerDelegate::Results;

SelvioFacialCaptureAnalyzer& objectOf(selvio_analyzer* analyzer) {
    return *required(analyzer, "analyzer").object;
}

/// Only what the host implements: without `detectionSuccess` the analyzer selects nothing by hand.
std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> delegateFor(const HostCallbacks& host) {
    if (!host) return nullptr;
    auto delegate = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    const auto forward = [&host](void (*selvio_analyzer_callbacks::*member)(void*, const selvio_results*)) {
        std::function<void(const Results&)> call;
        if (host->members.*member) {
            call = [host, member](const Results& results) {
                const selvio_results handle{results};
                host->call(member, &handle);
            };
        }
        return call;
    };
    delegate->detectionResults = forward(&selvio_analyzer_callbacks::detection_results);
    delegate->detectionSuccess = forward(&selvio_analyzer_callbacks::detection_success);
    delegate->detectionCancelled = forward(&selvio_analyzer_callbacks::detection_cancelled);
    if (host->members.start_countdown)
        delegate->startCountdown = [host] { host->call(&selvio_analyzer_callbacks::start_countdown); };
    return delegate;
}

void setCallbacks(selvio_analyzer& analyzer, const selvio_analyzer_callbacks* callbacks) {
    analyzer.callbacks.replace(callbacks, [&](const HostCallbacks& next) {
        analyzer.delegate = delegateFor(next);
        analyzer.object->setDelegate(analyzer.delegate);
    });
}

/// An operation of the analyzer that takes nothing.
bool perform(selvio_analyzer* analyzer, void (SelvioFacialCaptureAnalyzer::*operation)(), char** error) {
    return guarded(error, [&] { (objectOf(analyzer).*operation)(); });
}

}  // namespace

selvio_analyzer* selvio_analyzer_create(selvio_platform* platform, selvio_parameters* parameters, char** error) {
    return guarded(error, [&] {
        auto object = SelvioFacialCaptureAnalyzer::initWithParameters(required(parameters, "parameters").object,
                                                                      required(platform, "platform").ports);
        if (!object) throw Failure("the analyzer could not be made");
        return new selvio_analyzer{std::move(object)};
    });
}

void selvio_analyzer_destroy(selvio_analyzer* analyzer) {
    guarded(nullptr, [&] {
        if (!analyzer) return;
        setCallbacks(*analyzer, nullptr);
        delete analyzer;
    });
}

bool selvio_analyzer_set_callbacks(selvio_analyzer* analyzer, const selvio_analyzer_callbacks* callbacks,
                                   char** error) {
    return guarded(error, [&] { setCallbacks(required(analyzer, "analyzer"), callbacks); });
}

bool selvio_analyzer_analyze_frame(selvio_analyzer* analyzer, const selvio_frame* frame, char** error) {
    return guarded(error, [&] { objectOf(analyzer).analyzeSampleBuffer(required(frame, "frame").object); });
}

bool selvio_analyzer_resume(selvio_analyzer* analyzer, char** error) {
    return perform(analyzer, &SelvioFacialCaptureAnalyzer::resume, error);
}

bool selvio_analyzer_pause(selvio_analyzer* analyzer, int64_t reason, char** error) {
    return guarded(error, [&] {
        if (reason < 0 || reason > 4) throw Failure("there is no reason " + std::to_string(reason) + " for a pause");
        objectOf(analyzer).pauseFor(reason);
    });
}

bool selvio_analyzer_select_frame(selvio_analyzer* analyzer, char** error) {
    return perform(analyzer, &SelvioFacialCaptureAnalyzer::selectFrame, error);
}

bool selvio_analyzer_stop(selvio_analyzer* analyzer, char** error) {
    return perform(analyzer, &SelvioFacialCaptureAnalyzer::stop, error);
}

bool selvio_analyzer_cancel(selvio_analyzer* analyzer, char** error) {
    return perform(analyzer, &SelvioFacialCaptureAnalyzer::cancel, error);
}
