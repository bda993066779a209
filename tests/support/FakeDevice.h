// A device and a screen of known facts.
#pragma once

#include <SelvioFacialCapture/platform/Device.h>

#include <atomic>
#include <functional>

namespace selvio {

struct FakeDevice final : Device {
    [[nodiscard]] std::string systemVersion() const override { return duringQuestions(), "12.11"; }
    [[nodiscard]] std::string model() const override { return duringQuestions(), "Kiosk"; }
    [[nodiscard]] std::string machineName() const override { return duringQuestions(), "x86_64"; }
    [[nodiscard]] DeviceOrientation orientation() const override { return duringQuestions(), orientation_.load(); }
    void setOrientation(DeviceOrientation orientation) { orientation_ = orientation; }

    std::function<void()> duringQuestions = [] {};

private:
    std::atomic<DeviceOrientation> orientation_{DeviceOrientation::Portrait};
};

struct FakeScreen final : Screen {
    explicit FakeScreen(Size bounds = {1080.0, 1920.0},
                        InterfaceOrientation orientation = InterfaceOrientation::Portrait)
        : bounds_(bounds), orientation_(orientation) {}
    [[nodiscard]] Size bounds() const override { return bounds_; }
    [[nodiscard]] InterfaceOrientation statusBarOrientation() const override { return orientation_; }

private:
    const Size bounds_;
    const InterfaceOrientation orientation_;
};

}  // namespace selvio
