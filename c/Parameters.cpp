#include <array>
#include <string>

#include "c/Support.h"

using namespace selvio::c;
using Parameters = SelvioFacialCaptureParameters;

namespace {

/// How a parameter is read and written.
struct Parameter {
    std::int64_t (*get)(const Parameters& parameters);
    void (*set)(Parameters& parameters, std::int64_t value);
};

template <auto getter, auto setter>
constexpr Parameter own = {
    [](const Parameters& parameters) { return static_cast<std::int64_t>((parameters.*getter)()); },
    [](Parameters& parameters, std::int64_t value) { (parameters.*setter)(value); }};

template <auto getter, auto setter>
constexpr Parameter cameras = {
    [](const Parameters& parameters) { return static_cast<std::int64_t>((*parameters.cameraParameters().*getter)()); },
    [](Parameters& parameters, std::int64_t value) { (*parameters.cameraParameters().*setter)(value); }};

using P = Parameters;
using C = SelvioFacialCaptureCameraParameters;
// In the order of selvio_parameter.
constexpr std::array kParameters = {own<&P::mode, &P::setMode>,
                                    own<&P::timeout, &P::setTimeout>,
                                    own<&P::minFill, &P::setMinFill>,
                                    own<&P::maxFill, &P::setMaxFill>,
                                    own<&P::roll, &P::setRoll>,
                                    own<&P::pitch, &P::setPitch>,
                                    own<&P::yaw, &P::setYaw>,
                                    own<&P::imageQuality, &P::setImageQuality>,
                                    own<&P::selectOnSmile, &P::setSelectOnSmile>,
                                    own<&P::countdownTime, &P::setCountdownTime>,
                                    cameras<&C::recordVideo, &C::setRecordVideo>,
                                    cameras<&C::recordAudio, &C::setRecordAudio>,
                                    cameras<&C::videoQuality, &C::setVideoQuality>,
                                    cameras<&C::showRecordingUI, &C::setShowRecordingUI>,
                                    own<&P::highlightLandmarks, &P::setHighlightLandmarks>};
static_assert(kParameters.size() == SELVIO_PARAMETER_HIGHLIGHT_LANDMARKS + 1);

const Parameter& parameterOf(std::int32_t number) {
    if (number < 0 || number > SELVIO_PARAMETER_HIGHLIGHT_LANDMARKS)
        throw Failure("there is no parameter " + std::to_string(number));
    return kParameters[static_cast<std::size_t>(number)];
}

}  // namespace

selvio_parameters* selvio_parameters_create(char** error) {
    return guarded(error, [] { return new selvio_parameters{std::make_shared<Parameters>()}; });
}

void selvio_parameters_destroy(selvio_parameters* parameters) {
    guarded(nullptr, [&] { delete parameters; });
}

bool selvio_parameters_set(selvio_parameters* parameters, int32_t parameter, int64_t value, char** error) {
    return guarded(error, [&] {
        if (parameter == SELVIO_PARAMETER_MODE && value != SELVIO_MODE_MANUAL && value != SELVIO_MODE_AUTO)
            throw Failure("there is no mode " + std::to_string(value));
        parameterOf(parameter).set(*required(parameters, "parameters").object, value);
    });
}

int64_t selvio_parameters_get(const selvio_parameters* parameters, int32_t parameter, char** error) {
    return guardedOr(std::int64_t{-1}, error,
                     [&] { return parameterOf(parameter).get(*required(parameters, "parameters").object); });
}
