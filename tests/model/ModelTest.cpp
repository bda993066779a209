#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>
#include <gtest/gtest.h>

namespace {

using Parameters = SelvioFacialCaptureParameters;
using CameraParameters = SelvioFacialCaptureCameraParameters;
using Results = SelvioFacialCaptureResults;
using Status = SelvioFacialCaptureStatus;

TEST(Results, LookUpsCoverTheirTablesAndNothingElse) {
    EXPECT_EQ(Results::localizeKeyFrom(SelvioFacialCaptureStatusNonUniformLight), "selvio_facial_capture_status_non_uniform_light");
    EXPECT_EQ(Results::localizeKeyFrom(SelvioFacialCaptureStatusMoveCloser), "selvio_facial_capture_status_move_closer");
    EXPECT_EQ(Results::stringFrom(SelvioFacialCaptureResultCodeSuccessVideo), "SuccessVideo");
    EXPECT_EQ(Results::stringFrom(SelvioFacialCaptureResultCodeCancelled), "Cancelled");
    for (const int outside : {-1, 15, 4000}) EXPECT_EQ(Results::localizeKeyFrom(static_cast<Status>(outside)), std::nullopt);
    for (const int outside : {-1, 4}) EXPECT_EQ(Results::stringFrom(static_cast<SelvioFacialCaptureResultCode>(outside)), std::nullopt);
}

TEST(Results, TheFirstStatusOfAListIsTheMostImportantOne) {
    Results results;
    EXPECT_EQ(results.orderedStatuses(), std::nullopt);
    const auto set = [&](Results::Statuses statuses) {
        results.setOrderedStatuses(statuses);
        EXPECT_EQ(results.orderedStatuses(), statuses);
        return results.highestPriorityStatus();
    };
    EXPECT_EQ(set(std::vector{Status(3), Status(8), Status(14)}), 3);
    EXPECT_EQ(set(std::vector{Status(8), Status(6), Status(14)}), 8);  // trusts the order
    EXPECT_EQ(set(std::vector<Status>{}), 8);                          // absent and empty leave it
    EXPECT_EQ(set(std::nullopt), 8);
}

TEST(Parameters, SettersClampAndTheFillBoundsKeepTheirDistance) {
    struct Row {
        const char* name;
        void (*change)(Parameters&);
        const char* key;
        const char* value;
        const char* otherKey;
        const char* otherValue;
    };
    const std::vector<Row> rows = {
        {"mode 0", [](Parameters& p) { p.setMode(0); }, "Mode", "2", "Timeout", "20"},
        {"mode 3", [](Parameters& p) { p.setMode(3); }, "Mode", "2", "Yaw", "500"},
        {"mode -1", [](Parameters& p) { p.setMode(-1); }, "Mode", "2", "Pitch", "500"},
        {"mode 1", [](Parameters& p) { p.setMode(1); }, "Mode", "1", "SelectOnSmile", "0"},
        {"timeout 1", [](Parameters& p) { p.setTimeout(1); }, "Timeout", "3", "Mode", "2"},
        {"timeout 100", [](Parameters& p) { p.setTimeout(100); }, "Timeout", "30", "Mode", "2"},
        {"min 700", [](Parameters& p) { p.setMinFill(700); }, "MinFill", "700", "MaxFill", "800"},
        {"min 1000", [](Parameters& p) { p.setMinFill(1000); }, "MinFill", "800", "MaxFill", "900"},
        {"max 300", [](Parameters& p) { p.setMaxFill(300); }, "MaxFill", "500", "MinFill", "400"},
        {"max 650", [](Parameters& p) { p.setMaxFill(650); }, "MaxFill", "650", "MinFill", "550"},
        {"max 649", [](Parameters& p) { p.setMaxFill(649); }, "MaxFill", "649", "MinFill", "549"},
        {"roll -4", [](Parameters& p) { p.setRoll(-4); }, "Roll", "0", "Pitch", "500"},
        {"pitch 1001", [](Parameters& p) { p.setPitch(1001); }, "Pitch", "1000", "Roll", "500"},
        {"yaw 7", [](Parameters& p) { p.setYaw(7); }, "Yaw", "7", "Roll", "500"},
        {"quality 0", [](Parameters& p) { p.setImageQuality(0); }, "ImageQuality", "5", "CountdownTime", "2"},
        {"quality 500", [](Parameters& p) { p.setImageQuality(500); }, "ImageQuality", "100", "CountdownTime", "2"},
        {"countdown 9", [](Parameters& p) { p.setCountdownTime(9); }, "CountdownTime", "5", "ImageQuality", "95"},
        {"smile", [](Parameters& p) { p.setSelectOnSmile(true); }, "SelectOnSmile", "1", "RecordVideo", "0"},
        {"video 9", [](Parameters& p) { p.cameraParameters()->setVideoQuality(9); }, "VideoQuality", "10", "ShowRecordingUI", "1"},
        {"video 101", [](Parameters& p) { p.cameraParameters()->setVideoQuality(101); }, "VideoQuality", "100", "RecordAudio", "0"},
        {"video 55", [](Parameters& p) { p.cameraParameters()->setVideoQuality(55); }, "VideoQuality", "55", "RecordAudio", "0"},
        {"no camera parameters", [](Parameters& p) { p.setCameraParameters(nullptr); }, "VideoQuality", "0", "ShowRecordingUI", "0"},
    };
    for (const Row& row : rows) {
        Parameters parameters;
        row.change(parameters);
        auto dictionary = parameters.toDictionary();
        EXPECT_EQ(dictionary.size(), 14U);
        EXPECT_EQ(dictionary[row.key], row.value) << row.name;
        EXPECT_EQ(dictionary[row.otherKey], row.otherValue) << row.name;
    }
    EXPECT_EQ(Parameters().minFill(), 550);
    EXPECT_EQ(Parameters().maxFill(), 725);
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

    struct Row {
        std::string archive;
        bool recordVideo, recordAudio, showRecordingUI;
        std::int64_t videoQuality;
    };
    const std::vector<Row> rows = {
        {whole, true, true, false, 73},
        {"{}", false, false, false, 10},
        {"", false, false, false, 10},
        {"[1, 2]", false, false, false, 10},
        {whole.substr(0, whole.size() - 2), false, false, false, 10},
        {R"({"RecordVideo": 1, "RecordAudio": "true", "ShowRecordingUI": null, "VideoQuality": "50"})", false, false, false, 10},
        {R"({"ShowRecordingUI": true, "VideoQuality": 3.7, "Other": {}})", false, false, true, 10},
        {R"({"RecordVideo": true, "VideoQuality": 18446744073709551615})", true, false, false, 100},
        {R"({"VideoQuality": -5})", false, false, false, 10},
    };
    for (const Row& row : rows) {
        const auto decoded = CameraParameters::initWithCoder(row.archive);
        EXPECT_EQ(decoded->recordVideo(), row.recordVideo) << row.archive;
        EXPECT_EQ(decoded->recordAudio(), row.recordAudio) << row.archive;
        EXPECT_EQ(decoded->showRecordingUI(), row.showRecordingUI) << row.archive;
        EXPECT_EQ(decoded->videoQuality(), row.videoQuality) << row.archive;
    }
    EXPECT_EQ(CameraParameters::stringFrom(3), "VideoQuality");
    EXPECT_EQ(CameraParameters::stringFrom(4), std::nullopt);
    EXPECT_EQ(CameraParameters::stringFrom(-1), std::nullopt);
}

}  // namespace
