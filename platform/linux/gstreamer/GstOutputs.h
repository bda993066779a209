// Outputs with recommended recording settings and code search.
#pragma once

#include "platform/capture/CaptureOutputs.h"

#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Recording.h>

namespace selvio {

class GstVideoDataOutput final : public QueuedVideoOutput {
public:
    GstVideoDataOutput(std::shared_ptr<const void> system, const RecordingOptions& recording)
        : QueuedVideoOutput(std::move(system), {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}),
          codec_(recommendedVideoCodec(recording)) {}

    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string& fileType) const override;
    /// Frames a second to expect, for the recommended settings.
    void setFrameRate(int framesPerSecond) { framesPerSecond_ = framesPerSecond; }

private:
    const std::string codec_;
    std::atomic<int> framesPerSecond_{30};
};

class GstMetadataOutput final : public QueuedMetadataOutput {
public:
    using QueuedMetadataOutput::QueuedMetadataOutput;

    /// Whether a frame would be looked at now.
    [[nodiscard]] bool wantsFrame() const { return !busy_ && isSearching(); }
    /// Submits a frame to the search, if none is being searched. Never waits. Codes are left out unless `isWanted` says
    /// yes when they are to be told: a search may outlast the run that its frame came from.
    void search(std::shared_ptr<PixelBuffer> frame, std::function<bool()> isWanted);

private:
    [[nodiscard]] std::vector<MetadataObject> codesIn(const PixelBuffer& frame);

    std::atomic<bool> busy_{false};
    bool usesGlobalHistogram_ = false;  // used on queue_ only
    SerialQueue queue_{"barcodes"};
};

}  // namespace selvio
