#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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
    for (int status = 0; status < 15; ++status) {
        EXPECT_EQ(Results::localizeKeyFrom(static_cast<Status>(status)),
                  std::string("selvio_facial_capture_status_") + keys[status]);
    }
    const char* const words[] = {"None", "SuccessStillCamera", "SuccessVideo", "Cancelled"};
    for (int code = 0; code < 4; ++code)
        EXPECT_EQ(Results::stringFrom(static_cast<SelvioFacialCaptureResultCode>(code)), words[code]);
    for (const int outside : {-1, 15}) EXPECT_EQ(Results::localizeKeyFrom(static_cast<Status>(outside)), std::nullopt);
    for (const int outside : {-1, 4})
        EXPECT_EQ(Results::stringFrom(static_cast<SelvioFacialCaptureResultCode>(outside)), std::nullopt);
}

TEST(Results, KeepEachValueInItsPlace) {
    Results results;
    EXPECT_EQ(results.highestPriorityStatus(), SelvioFacialCaptureStatusNone);
    EXPECT_EQ(results.resultCode(), SelvioFacialCaptureResultCodeNone);
    EXPECT_EQ(results.faceRect(), selvio::Rect());
    struct Place {
        void (Results::*set)(Results::Points);
        Results::Points (Results::*get)() const;
    };
    const Place places[] = {{&Results::setFaceContourPoints, &Results::faceContourPoints},
                            {&Results::setNoseCrestPoints, &Results::noseCrestPoints},
                            {&Results::setNosePoints, &Results::nosePoints},
                            {&Results::setLeftEyePoints, &Results::leftEyePoints},
                            {&Results::setRightEyePoints, &Results::rightEyePoints},
                            {&Results::setInnerLipsPoints, &Results::innerLipsPoints},
                            {&Results::setOuterLipsPoints, &Results::outerLipsPoints}};
    for (const Place& place : places) EXPECT_EQ((results.*place.get)(), std::nullopt);
    double x = 0;
    for (const Place& place : places) (results.*place.set)(std::vector<selvio::Point>{{++x, 0.0}});
    x = 0;
    for (const Place& place : places) EXPECT_EQ((results.*place.get)(), (std::vector<selvio::Point>{{++x, 0.0}}));

    EXPECT_FALSE(results.selectedImage());
    results.setSelectedImage(selvio::Image{});
    EXPECT_TRUE(results.selectedImage());
    EXPECT_EQ(results.encodedSelectedImage(), std::nullopt);
    EXPECT_EQ(results.obixDataString(), std::nullopt);
    results.setEncodedSelectedImage("image");
    results.setObixDataString("record");
    EXPECT_EQ(results.encodedSelectedImage(), "image");
    EXPECT_EQ(results.obixDataString(), "record");
    results.setFaceRect({1, 2, 3, 4});
    EXPECT_EQ(results.faceRect(), (selvio::Rect{1, 2, 3, 4}));
    results.setResultCode(SelvioFacialCaptureResultCodeCancelled);
    EXPECT_EQ(results.resultCode(), SelvioFacialCaptureResultCodeCancelled);
    results.setHighestPriorityStatus(SelvioFacialCaptureStatusTooDark);
    EXPECT_EQ(results.highestPriorityStatus(), SelvioFacialCaptureStatusTooDark);
    EXPECT_EQ(results.orderedStatuses(), std::nullopt);
}

TEST(Results, TheFirstStatusOfAListIsTheMostImportantOne) {
    Results results;
    const auto set = [&](Results::Statuses statuses) {
        results.setOrderedStatuses(statuses);
        EXPECT_EQ(results.orderedStatuses(), statuses);
        return results.highestPriorityStatus();
    };
    EXPECT_EQ(set(std::vector{Status(8), Status(6), Status(14)}), 8);  // trusts the order
    EXPECT_EQ(set(std::vector<Status>{}), 8);                          // absent and empty leave it
    EXPECT_EQ(set(std::nullopt), 8);
}

// The rules of the parameters in other words, and what they come to after any sequence of calls.
TEST(Parameters, SettersClampAndTheFillBoundsKeepTheirDistance) {
    using Value = std::int64_t;
    struct Number {
        const char* key;
        Value low, high, initial;
        void (*set)(Parameters&, Value);
        Value (*get)(const Parameters&);
    };
    const std::vector<Number> numbers = {
        {"Timeout", 3, 30, 20, [](auto& p, Value v) { p.setTimeout(v); }, [](auto& p) { return p.timeout(); }},
        {"Roll", 0, 1000, 500, [](auto& p, Value v) { p.setRoll(v); }, [](auto& p) { return p.roll(); }},
        {"Pitch", 0, 1000, 500, [](auto& p, Value v) { p.setPitch(v); }, [](auto& p) { return p.pitch(); }},
        {"Yaw", 0, 1000, 500, [](auto& p, Value v) { p.setYaw(v); }, [](auto& p) { return p.yaw(); }},
        {"ImageQuality", 5, 100, 95, [](auto& p, Value v) { p.setImageQuality(v); },
         [](auto& p) { return p.imageQuality(); }},
        {"CountdownTime", 0, 5, 2, [](auto& p, Value v) { p.setCountdownTime(v); },
         [](auto& p) { return p.countdownTime(); }},
        {"VideoQuality", 10, 100, 10, [](auto& p, Value v) { p.cameraParameters()->setVideoQuality(v); },
         [](auto& p) { return p.cameraParameters()->videoQuality(); }},
        {"MinFill", 400, 800, 550, [](auto& p, Value v) { p.setMinFill(v); }, [](auto& p) { return p.minFill(); }},
        {"MaxFill", 500, 900, 725, [](auto& p, Value v) { p.setMaxFill(v); }, [](auto& p) { return p.maxFill(); }},
    };
    struct Flag {
        const char* key;
        bool initial;
        void (*set)(Parameters&, bool);
        bool (*get)(const Parameters&);
    };
    const std::vector<Flag> flags = {
        {"SelectOnSmile", false, [](auto& p, bool v) { p.setSelectOnSmile(v); },
         [](auto& p) { return p.selectOnSmile(); }},
        {"RecordVideo", false, [](auto& p, bool v) { p.cameraParameters()->setRecordVideo(v); },
         [](auto& p) { return p.cameraParameters()->recordVideo(); }},
        {"RecordAudio", false, [](auto& p, bool v) { p.cameraParameters()->setRecordAudio(v); },
         [](auto& p) { return p.cameraParameters()->recordAudio(); }},
        {"ShowRecordingUI", true, [](auto& p, bool v) { p.cameraParameters()->setShowRecordingUI(v); },
         [](auto& p) { return p.cameraParameters()->showRecordingUI(); }},
    };
    std::map<std::string, std::string> expected{{"Mode", "2"}};
    std::map<std::string, Value> values;
    for (const Number& number : numbers) values[number.key] = number.initial;
    for (const Flag& flag : flags) expected[flag.key] = flag.initial ? "1" : "0";

    Parameters parameters;
    EXPECT_FALSE(parameters.highlightLandmarks());
    std::mt19937 random(1);
    const auto pick = [&](std::size_t size) { return std::uniform_int_distribution<std::size_t>(0, size - 1)(random); };
    for (int step = 0; step < 3000; ++step) {
        for (const auto& [key, value] : values) expected[key] = std::to_string(value);
        ASSERT_EQ(parameters.toDictionary(), expected) << "after " << step << " calls";
        for (const Number& number : numbers) ASSERT_EQ(number.get(parameters), values[number.key]) << number.key;
        for (const Flag& flag : flags) ASSERT_EQ(flag.get(parameters), expected[flag.key] == "1") << flag.key;
        ASSERT_EQ(parameters.mode(), expected["Mode"] == "1" ? 1 : 2);

        if (step % 5 == 0) {
            const Flag& flag = flags[pick(flags.size())];
            const bool value = pick(2) == 1;
            flag.set(parameters, value);
            expected[flag.key] = value ? "1" : "0";
            parameters.setHighlightLandmarks(value);
            ASSERT_EQ(parameters.highlightLandmarks(), value);
            const Value mode = std::array<Value, 6>{1, 2, 0, 3, -1, INT64_MIN}[pick(6)];
            parameters.setMode(mode);
            expected["Mode"] = mode == 1 ? "1" : "2";
            continue;
        }
        const Number& number = numbers[pick(numbers.size())];
        const Value candidates[] = {number.low - 1,  number.low,  number.low + 1,
                                    number.high - 1, number.high, number.high + 1,
                                    INT64_MIN,       INT64_MAX,   number.low + static_cast<Value>(pick(400))};
        const Value value = candidates[pick(std::size(candidates))];
        number.set(parameters, value);
        const Value stored = std::max(number.low, std::min(value, number.high));
        values[number.key] = stored;
        if (number.key == std::string("MinFill")) values["MaxFill"] = std::max(values["MaxFill"], stored + 100);
        if (number.key == std::string("MaxFill")) values["MinFill"] = std::min(values["MinFill"], stored - 100);
    }

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

    struct Row {
        std::string archive;
        bool recordVideo, recordAudio, showRecordingUI;
        std::int64_t videoQuality;
    };
    const std::vector<Row> rows = {
        {whole, true, true, false, 73},
        {"[1, 2]", false, false, false, 10},
        {whole.substr(0, whole.size() - 2), false, false, false, 10},
        {R"({"RecordVideo": 1, "RecordAudio": "true", "ShowRecordingUI": null, "VideoQuality": "50"})", false, false,
         false, 10},
        {R"({"ShowRecordingUI": true, "VideoQuality": 3.7, "Other": {}})", false, false, true, 10},
        {R"({"RecordVideo": true, "VideoQuality": 18446744073709551615})", true, false, false, 100},
    };
    for (const Row& row : rows) {
        const auto decoded = CameraParameters::initWithCoder(row.archive);
        EXPECT_EQ(decoded->recordVideo(), row.recordVideo) << row.archive;
        EXPECT_EQ(decoded->recordAudio(), row.recordAudio) << row.archive;
        EXPECT_EQ(decoded->showRecordingUI(), row.showRecordingUI) << row.archive;
        EXPECT_EQ(decoded->videoQuality(), row.videoQuality) << row.archive;
    }
    const char* const keys[] = {"RecordVideo", "RecordAudio", "ShowRecordingUI", "VideoQuality"};
    for (int index = 0; index < 4; ++index) EXPECT_EQ(CameraParameters::stringFrom(index), keys[index]);
    for (const int outside : {-1, 4}) EXPECT_EQ(CameraParameters::stringFrom(outside), std::nullopt);
}

}  // namespace
