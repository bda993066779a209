#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

namespace {

using Parameters = SelvioFacialCaptureParameters;
using CameraParameters = SelvioFacialCaptureCameraParameters;
using Results = SelvioFacialCaptureResults;
using Status = SelvioFacialCaptureStatus;

TEST(Results, LookUpsCoverTheirTablesAndNothingElse) {
    const char* const keys[] = {"none",      "face_not_found", "more_than_one_face", "face_roll",    "face_pitch",
                                "face_yaw",  "move_closer",    "too_close",          "not_centered", "hold_still",
                                "countdown", "too_dark",       "non_uniform_light",  "stop_smiling", "good_frame"};
    for (int status = 0; status < 15; ++status)
        EXPECT_EQ(Results::localizeKeyFrom(static_cast<Status>(status)),
                  std::string("selvio_facial_capture_status_") + keys[status]);
    for (const int outside : {-1, 15}) EXPECT_EQ(Results::localizeKeyFrom(static_cast<Status>(outside)), std::nullopt);
    using Words = std::vector<std::optional<std::string>>;
    Words words, recorded;
    for (int code = -1; code <= 4; ++code) {
        words.push_back(Results::stringFrom(static_cast<SelvioFacialCaptureResultCode>(code)));
        recorded.push_back(CameraParameters::stringFrom(code));
    }
    EXPECT_EQ(words, (Words{{}, "None", "SuccessStillCamera", "SuccessVideo", "Cancelled", {}}));
    EXPECT_EQ(recorded, (Words{{}, "RecordVideo", "RecordAudio", "ShowRecordingUI", "VideoQuality", {}}));
}

TEST(Results, KeepEachValueInItsPlaceAndCopyAllButTheSelection) {
    Results results;
    EXPECT_EQ(results.highestPriorityStatus(), SelvioFacialCaptureStatusNone);
    EXPECT_EQ(results.orderedStatuses(), std::nullopt);
    using Points = std::optional<std::vector<selvio::Point>>;
    const std::pair<void (Results::*)(Points), Points (Results::*)() const> places[] = {
        {&Results::setFaceContourPoints, &Results::faceContourPoints},
        {&Results::setNoseCrestPoints, &Results::noseCrestPoints},
        {&Results::setNosePoints, &Results::nosePoints},
        {&Results::setLeftEyePoints, &Results::leftEyePoints},
        {&Results::setRightEyePoints, &Results::rightEyePoints},
        {&Results::setInnerLipsPoints, &Results::innerLipsPoints},
        {&Results::setOuterLipsPoints, &Results::outerLipsPoints}};
    double x = 0;
    for (const auto& [set, get] : places) {
        EXPECT_EQ((results.*get)(), std::nullopt);
        (results.*set)(std::vector<selvio::Point>{{++x, 0.0}});
    }
    results.setSelectedImage(selvio::Image{});
    results.setEncodedSelectedImage("image");
    results.setObixDataString("record");
    results.setFaceRect({1, 2, 3, 4});
    results.setResultCode(SelvioFacialCaptureResultCodeCancelled);
    const std::vector statuses{SelvioFacialCaptureStatusNotCentered, SelvioFacialCaptureStatusMoveCloser};
    results.setOrderedStatuses(statuses);
    EXPECT_EQ(results.highestPriorityStatus(), SelvioFacialCaptureStatusNotCentered) << "trusts the order";
    results.setHighestPriorityStatus(SelvioFacialCaptureStatusTooDark);

    const auto selection = [](const Results& of) {
        return std::tuple(of.selectedImage().has_value(), of.encodedSelectedImage(), of.obixDataString(),
                          of.resultCode());
    };
    const auto copy = results.withoutSelection();
    EXPECT_EQ(selection(results), std::tuple(true, "image", "record", SelvioFacialCaptureResultCodeCancelled));
    EXPECT_EQ(selection(*copy), selection(Results()));
    for (const Results* same : std::initializer_list<const Results*>{&results, copy.get()}) {
        x = 0;
        for (const auto& [set, get] : places) EXPECT_EQ((same->*get)(), (std::vector<selvio::Point>{{++x, 0.0}}));
        EXPECT_EQ(same->faceRect(), (selvio::Rect{1, 2, 3, 4}));
        EXPECT_EQ(same->orderedStatuses(), statuses);
        EXPECT_EQ(same->highestPriorityStatus(), SelvioFacialCaptureStatusTooDark);
    }
    for (const Results::Statuses& none : {Results::Statuses(std::in_place), Results::Statuses()}) {
        results.setOrderedStatuses(none);
        EXPECT_EQ(results.orderedStatuses(), none);
        EXPECT_EQ(results.highestPriorityStatus(), SelvioFacialCaptureStatusTooDark) << "stays";
    }
}

// The rules of the parameters in other words, and what they come to after any sequence of calls.
TEST(Parameters, SettersClampAndTheFillBoundsKeepTheirDistance) {
    using P = Parameters;
    using Value = std::int64_t;
    using Camera = CameraParameters;
    const auto camera = [](auto member) {
        return [member](const P& p, auto... value) { return ((*p.cameraParameters()).*member)(value...); };
    };
    const struct Setting {
        std::string key;
        Value low, high, initial;
        std::function<void(P&, Value)> set;
        std::function<Value(const P&)> get;
    } settings[] = {
        {"Mode", 1, 2, 2, &P::setMode, &P::mode},
        {"Timeout", 3, 30, 20, &P::setTimeout, &P::timeout},
        {"Roll", 0, 1000, 500, &P::setRoll, &P::roll},
        {"Pitch", 0, 1000, 500, &P::setPitch, &P::pitch},
        {"Yaw", 0, 1000, 500, &P::setYaw, &P::yaw},
        {"ImageQuality", 5, 100, 95, &P::setImageQuality, &P::imageQuality},
        {"CountdownTime", 0, 5, 2, &P::setCountdownTime, &P::countdownTime},
        {"MinFill", 400, 800, 550, &P::setMinFill, &P::minFill},
        {"MaxFill", 500, 900, 725, &P::setMaxFill, &P::maxFill},
        {"SelectOnSmile", 0, 1, 0, &P::setSelectOnSmile, &P::selectOnSmile},
        {"VideoQuality", 10, 100, 10, camera(&Camera::setVideoQuality), camera(&Camera::videoQuality)},
        {"RecordVideo", 0, 1, 0, camera(&Camera::setRecordVideo), camera(&Camera::recordVideo)},
        {"RecordAudio", 0, 1, 0, camera(&Camera::setRecordAudio), camera(&Camera::recordAudio)},
        {"ShowRecordingUI", 0, 1, 1, camera(&Camera::setShowRecordingUI), camera(&Camera::showRecordingUI)},
    };
    std::map<std::string, Value> values;
    for (const Setting& setting : settings) values[setting.key] = setting.initial;
    Parameters parameters;
    std::mt19937 random(1);
    const auto below = [&](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random); };
    for (int step = 0; step < 3000; ++step) {
        std::map<std::string, std::string> dictionary;
        for (const auto& [key, value] : values) dictionary[key] = std::to_string(value);
        ASSERT_EQ(parameters.toDictionary(), dictionary) << "after " << step << " calls";
        for (const Setting& setting : settings) ASSERT_EQ(setting.get(parameters), values[setting.key]) << setting.key;

        const Setting& setting = settings[below(std::size(settings))];
        const bool flag = setting.low == 0 && setting.high == 1;
        const Value near = setting.low + static_cast<Value>(below(400));
        const Value candidates[] = {setting.low, setting.high, setting.low - 1, setting.high + 1, INT64_MIN,
                                    INT64_MAX,   near};
        const Value value = candidates[below(flag ? 2 : std::size(candidates))];
        setting.set(parameters, value);
        Value& stored = values[setting.key] = std::clamp(value, setting.low, setting.high);
        if (setting.key == "Mode") stored = value == 1 ? 1 : 2;
        if (setting.key == "MinFill") values["MaxFill"] = std::max(values["MaxFill"], stored + 100);
        if (setting.key == "MaxFill") values["MinFill"] = std::min(values["MinFill"], stored - 100);
    }

    for (const bool highlight : {true, false}) {
        parameters.setHighlightLandmarks(highlight);
        EXPECT_EQ(parameters.highlightLandmarks(), highlight);
    }
    EXPECT_FALSE(Parameters().highlightLandmarks());
    parameters.setCameraParameters(nullptr);
    for (const char* key : {"RecordVideo", "RecordAudio", "ShowRecordingUI", "VideoQuality"})
        EXPECT_EQ(parameters.toDictionary().at(key), "0");
    EXPECT_EQ(Parameters::clampInteger(5, 10, 1), 1);  // crossed bounds: the upper one is tested first
    EXPECT_EQ(Parameters::clampInteger(0, 10, 1), 10);
}

TEST(CameraParameters, TheArchiveRoundTripsAndSurvivesDamage) {
    CameraParameters original;
    original.setRecordVideo(true);
    original.setRecordAudio(true);
    original.setShowRecordingUI(false);
    original.setVideoQuality(73);
    const std::string whole = original.encodeWithCoder();
    EXPECT_EQ(whole, R"({"RecordVideo":true,"RecordAudio":true,"ShowRecordingUI":false,"VideoQuality":73})");

    using Values = std::tuple<bool, bool, bool, std::int64_t>;
    const Values initial{false, false, false, 10};
    const std::pair<std::string, Values> rows[] = {
        {whole, {true, true, false, 73}},
        {"[1, 2]", initial},
        {whole.substr(0, whole.size() - 2), initial},
        {R"({"RecordVideo": 1, "RecordAudio": "true", "ShowRecordingUI": null, "VideoQuality": "50"})", initial},
        {R"({"ShowRecordingUI": true, "VideoQuality": 3.7, "Other": {}})", {false, false, true, 10}},
        {R"({"RecordVideo": true, "VideoQuality": 18446744073709551615})", {true, false, false, 100}},
    };
    for (const auto& [archive, values] : rows) {
        const auto decoded = CameraParameters::initWithCoder(archive);
        EXPECT_EQ(std::tuple(decoded->recordVideo(), decoded->recordAudio(), decoded->showRecordingUI(),
                             decoded->videoQuality()),
                  values)
            << archive;
    }
}

}  // namespace
