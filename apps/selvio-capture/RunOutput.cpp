#include "RunOutput.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

namespace selvio::app {
namespace {

class JsonOutput final : public RunOutput {
public:
    explicit JsonOutput(std::ostream& stream) : stream_(stream) {}

    void event(const RunEvent& event) override {
        const nlohmann::ordered_json line = {{"event", event.name},
                                             {"time", std::round(event.time * 1000.0) / 1000.0},
                                             {"statuses", event.statuses},
                                             {"keys", keysOf(event.statuses)}};
        stream_ << line.dump() << std::endl;  // whoever reads along gets the line now
    }
    void countdown(std::int64_t, bool) override {}
    void message(const std::string& text) override { complain(text); }

private:
    std::ostream& stream_;
};

class PersonOutput final : public RunOutput {
public:
    PersonOutput(std::ostream& stream, bool terminal, Language language, std::string recordingMark)
        : stream_(stream), terminal_(terminal), language_(language), recordingMark_(std::move(recordingMark)) {}

    void event(const RunEvent& event) override {
        if (event.name == "detectionCancelled" || event.statuses.empty()) return;
        // While the countdown runs its number stands there, which says more than the countdown's status.
        if (event.statuses.front() == SelvioFacialCaptureStatusCountdown && !countdown_.empty()) return;
        countdown_.clear();
        guide(textForStatus(event.statuses.front(), language_), event.recording);
    }

    void countdown(std::int64_t secondsLeft, bool recording) override {
        countdown_ = textForStatus(SelvioFacialCaptureStatusCountdown, language_) + " … " + std::to_string(secondsLeft);
        guide(countdown_, recording);
    }

    void message(const std::string& text) override {
        endLine();
        stream_ << text << std::endl;
    }
    void endLine() override {
        if (terminal_ && !shown_.empty()) stream_ << std::endl;
        shown_.clear();
    }

private:
    void guide(const std::string& text, bool recording) {
        const std::string line = (recording ? recordingMark_ : "") + text;
        if (line == shown_) return;
        shown_ = line;
        if (terminal_) {
            stream_ << "\r\033[K" << line << std::flush;
        } else {
            stream_ << line << std::endl;
        }
    }

    std::ostream& stream_;
    const bool terminal_;
    const Language language_;
    const std::string recordingMark_;
    std::string shown_;
    std::string countdown_;
};

}  // namespace

std::unique_ptr<RunOutput> makeJsonOutput(std::ostream& stream) {
    return std::make_unique<JsonOutput>(stream);
}

std::unique_ptr<RunOutput> makePersonOutput(std::ostream& stream, bool terminal, Language language,
                                            std::string recordingMark) {
    return std::make_unique<PersonOutput>(stream, terminal, language, std::move(recordingMark));
}

std::string compact(const nlohmann::ordered_json& value) {
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::vector<std::string> keysOf(const std::vector<SelvioFacialCaptureStatus>& statuses) {
    std::vector<std::string> keys;
    keys.reserve(statuses.size());
    for (const auto status : statuses) keys.push_back(SelvioFacialCaptureResults::localizeKeyFrom(status).value_or(""));
    return keys;
}

}  // namespace selvio::app
