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
    return own != nullptr && own->system() == system_ &&
           !(input.device()->mediaType() == MediaType::Video ? parts_->camera : parts_->microphone);
}

bool CaptureSessionBase::canTake(const CaptureOutput& output) const {
    const auto* const own = dynamic_cast<const QueuedOutput*>(&output);
    return own != nullptr && own->system() == system_ && !own->isTaken() &&
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

bool CaptureSessionBase::canAddInput(const CaptureDeviceInput& input) const {
    const std::lock_guard lock(mutex_);
    return canTake(input);
}

void CaptureSessionBase::addInput(std::shared_ptr<CaptureDeviceInput> input) {
    {
        std::unique_lock lock(mutex_);
        if (!input || !canTake(*input)) {
            lock.unlock();
            return log("Capture: the session cannot take the input");
        }
        inputs_.push_back(std::move(input));
        updateParts();
    }
    partsChanged();
}

void CaptureSessionBase::removeInput(const std::shared_ptr<CaptureDeviceInput>& input) {
    {
        const std::lock_guard lock(mutex_);
        if (std::erase(inputs_, input) == 0) return;
        updateParts();
    }
    partsChanged();
}

bool CaptureSessionBase::canAddOutput(const CaptureOutput& output) const {
    const std::lock_guard lock(mutex_);
    return canTake(output);
}

void CaptureSessionBase::addOutput(std::shared_ptr<CaptureOutput> output) {
    {
        std::unique_lock lock(mutex_);
        if (!output || !canTake(*output) || !dynamic_cast<QueuedOutput&>(*output).take()) {
            lock.unlock();
            return log("Capture: the session cannot take the output");
        }
        outputs_.push_back(std::move(output));
        updateParts();
    }
    partsChanged();
}

void CaptureSessionBase::removeOutput(const std::shared_ptr<CaptureOutput>& output) {
    {
        const std::lock_guard lock(mutex_);
        if (std::erase(outputs_, output) == 0) return;
        dynamic_cast<QueuedOutput&>(*output).giveBack();
        updateParts();
    }
    partsChanged();
}

std::vector<std::shared_ptr<CaptureOutput>> CaptureSessionBase::outputs() const {
    return mutex_.get(outputs_);
}

}  // namespace selvio
