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

TEST(Results, LookUpsCoverTheirTablesAndNothingElse) {
    std::string keys, codes, recorded, right;
    for (int status = -1; status <= 15; ++status)
        keys += Results::localizeKeyFrom(static_cast<SelvioFacialCaptureStatus>(status)).value_or("-") + " ";
    for (const std::string key : {"none", "face_not_found", "more_than_one_face", "face_roll", "face_pitch", "face_yaw",
                                  "move_closer", "too_close", "not_centered", "hold_still", "countdown", "too_dark",
                                  "non_uniform_light", "stop_smiling", "good_frame"})
        right += "selvio_facial_capture_status_" + key + " ";
    EXPECT_EQ(keys, "- " + right + "- ");
    for (int code = -1; code <= 4; ++code) {
        codes += Results::stringFrom(static_cast<SelvioFacialCaptureResultCode>(code)).value_or("-") + " ";
        recorded += CameraParameters::stringFrom(code).value_or("-") + " ";
    }
    EXPECT_EQ(codes, "- None SuccessStillCamera SuccessVideo Cancelled - ");
    EXPECT_EQ(recorded, "- RecordVideo RecordAudio ShowRecordingUI VideoQuality - ");
}

TEST(Results, KeepEachValueInItsPlaceAndCopyAllButTheSelection) {
    Results results;
    using Points = Results::Points;
    const std::pair<void (Results::*)(Points), Points (Results::*)() const> parts[] = {
        {&Results::setFaceContourPoints, &Results::faceContourPoints},
        {&Results::setNoseCrestPoints, &Results::noseCrestPoints},
        {&Results::setNosePoints, &Results::nosePoints},
        {&Results::setLeftEyePoints, &Results::leftEyePoints},
        {&Results::setRightEyePoints, &Results::rightEyePoints},
        {&Results::setInnerLipsPoints, &Results::innerLipsPoints},
        {&Results::setOuterLipsPoints, &Results::outerLipsPoints}};
    for (double x = 0; const auto& [set, get] : parts) (results.*set)(std::vector{selvio::Point{x++, 0}});
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
    EXPECT_EQ(selection(*copy), std::tuple(false, std::nullopt, std::nullopt, SelvioFacialCaptureResultCodeNone));
    for (const Results* same : {&results, copy.get()}) {
        EXPECT_EQ(std::tuple(same->faceRect(), same->orderedStatuses(), same->highestPriorityStatus()),
                  std::tuple(selvio::Rect{1, 2, 3, 4}, statuses, SelvioFacialCaptureStatusTooDark));
        for (double x = 0; const auto& [set, get] : parts)
            EXPECT_EQ((same->*get)(), Points(std::vector{selvio::Point{x++, 0}}));
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
    using Camera = CameraParameters;
    using Value = std::int64_t;
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
    for (int step = 0; step < 3000; ++step) {
        std::map<std::string, std::string> dictionary;
        for (const auto& [key, value] : values) dictionary[key] = std::to_string(value);
        ASSERT_EQ(parameters.toDictionary(), dictionary) << "after " << step << " calls";
        const auto& [key, low, high, initial, set, get] = settings[random() % std::size(settings)];
        ASSERT_EQ(get(parameters), values[key]) << key;
        const Value candidates[] = {low, high, low - 1, high + 1, INT64_MIN, INT64_MAX, low + Value(random() % 400)};
        const Value value = candidates[random() % (low == 0 && high == 1 ? 2 : std::size(candidates))];
        set(parameters, value);
        Value& stored = values[key] = std::clamp(value, low, high);
        if (key == "Mode") stored = value == 1 ? 1 : 2;
        if (key == "MinFill") values["MaxFill"] = std::max(values["MaxFill"], stored + 100);
        if (key == "MaxFill") values["MinFill"] = std::min(values["MinFill"], stored - 100);
    }
    parameters.setCameraParameters(nullptr);
    EXPECT_EQ(parameters.toDictionary().at("RecordVideo") + parameters.toDictionary().at("VideoQuality"), "00");
    EXPECT_EQ(Parameters::clampInteger(5, 10, 1), 1) << "of crossed bounds the upper one is tested first";
}

TEST(CameraParameters, TheArchiveRoundTripsAndSurvivesDamage) {
    const std::string whole = R"({"RecordVideo":true,"RecordAudio":false,"ShowRecordingUI":true,"VideoQuality":73})";
    const auto read = CameraParameters::initWithCoder(whole);
    EXPECT_EQ(std::tuple(read->recordVideo(), read->recordAudio(), read->showRecordingUI(), read->videoQuality()),
              std::tuple(true, false, true, 73));
    const std::string initial =
        R"({"RecordVideo":false,"RecordAudio":false,"ShowRecordingUI":false,"VideoQuality":10})";
    const std::pair<std::string, std::string> rows[] = {
        {whole, whole},
        {"[1, 2]", initial},
        {whole.substr(0, whole.size() - 2), initial},
        {R"({"RecordVideo": 1, "RecordAudio": "true", "ShowRecordingUI": null, "VideoQuality": "50"})", initial},
        {R"({"VideoQuality": 3.7, "Other": {}})", initial},
        {R"({"RecordVideo": true, "VideoQuality": 18446744073709551615})",
         R"({"RecordVideo":true,"RecordAudio":false,"ShowRecordingUI":false,"VideoQuality":100})"},
    };
    for (const auto& [archive, decoded] : rows)
        EXPECT_EQ(CameraParameters::initWithCoder(archive)->encodeWithCoder(), decoded) << archive;
}

}  // namespace
