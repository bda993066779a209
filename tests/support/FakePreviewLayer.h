// A preview layer whose parts the test can look at.
#pragma once

#include <SelvioFacialCapture/platform/View.h>

#include <utility>

namespace selvio {

struct FakePreviewLayer final : PlainPreviewLayer {
    explicit FakePreviewLayer(std::shared_ptr<CaptureConnection> connects) : connects(std::move(connects)) {}
    void setVideoGravity(const std::string& value) override { gravity = value; }
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override { return connects; }
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        return {object.type, "transformed", object.bounds};
    }

    const std::shared_ptr<CaptureConnection> connects;
    std::string gravity;
};

}  // namespace selvio
