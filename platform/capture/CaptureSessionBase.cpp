#include "platform/capture/CaptureSessionBase.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>
#include <typeinfo>

namespace selvio {

CaptureSessionBase::~CaptureSessionBase() {
    for (const auto& output : outputs_) dynamic_cast<QueuedOutput&>(*output).giveBack();
}

// With mutex_ held, as the next two.
bool CaptureSessionBase::canTake(const CaptureDeviceInput& input) const {
    const auto* const own = dynamic_cast<const DeviceInput*>(&input);
    return own && own->system() == system_ &&
           !(input.device()->mediaType() == MediaType::Video ? parts_->camera : parts_->microphone);
}

bool CaptureSessionBase::canTake(const CaptureOutput& output) const {
    const auto* const own = dynamic_cast<const QueuedOutput*>(&output);
    return own && own->system() == system_ && !own->isTaken() &&
           std::none_of(outputs_.begin(), outputs_.end(),
                        [&](const auto& present) { return typeid(*present) == typeid(output); });
}

void CaptureSessionBase::updateParts() {
    auto parts = std::make_shared<Parts>();
    for (const auto& input : inputs_)
        (input->device()->mediaType() == MediaType::Video ? parts->camera : parts->microphone) = input->device();
    for (const auto& output : outputs_) {
        auto& own = dynamic_cast<QueuedOutput&>(*output);
        own.setConnected((own.source() == MediaType::Video ? parts->camera : parts->microphone) != nullptr);
        if (auto video = std::dynamic_pointer_cast<QueuedVideoOutput>(output)) parts->video = std::move(video);
        if (auto audio = std::dynamic_pointer_cast<QueuedAudioOutput>(output)) parts->audio = std::move(audio);
        if (auto metadata = std::dynamic_pointer_cast<QueuedMetadataOutput>(output))
            parts->metadata = std::move(metadata);
    }
    parts_ = std::move(parts);
}

bool CaptureSessionBase::change(const std::function<bool()>& what) {
    {
        const std::lock_guard lock(mutex_);
        if (!what()) return false;
        updateParts();
    }
    partsChanged();
    return true;
}

bool CaptureSessionBase::canAddInput(const CaptureDeviceInput& input) const {
    const std::lock_guard lock(mutex_);
    return canTake(input);
}

void CaptureSessionBase::addInput(std::shared_ptr<CaptureDeviceInput> input) {
    const bool changed = change([&] {
        if (!input || !canTake(*input)) return false;
        inputs_.push_back(std::move(input));
        return true;
    });
    if (!changed) log("Capture: the session cannot take the input");
}

void CaptureSessionBase::removeInput(const std::shared_ptr<CaptureDeviceInput>& input) {
    change([&] { return std::erase(inputs_, input) > 0; });
}

bool CaptureSessionBase::canAddOutput(const CaptureOutput& output) const {
    const std::lock_guard lock(mutex_);
    return canTake(output);
}

void CaptureSessionBase::addOutput(std::shared_ptr<CaptureOutput> output) {
    const bool changed = change([&] {
        if (!output || !canTake(*output) || !dynamic_cast<QueuedOutput&>(*output).take()) return false;
        outputs_.push_back(std::move(output));
        return true;
    });
    if (!changed) log("Capture: the session cannot take the output");
}

void CaptureSessionBase::removeOutput(const std::shared_ptr<CaptureOutput>& output) {
    change([&] {
        if (std::erase(outputs_, output) == 0) return false;
        dynamic_cast<QueuedOutput&>(*output).giveBack();
        return true;
    });
}

std::vector<std::shared_ptr<CaptureOutput>> CaptureSessionBase::outputs() const {
    return mutex_.get(outputs_);
}

}  // namespace selvio
