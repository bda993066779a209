#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>
#include <gtest/gtest.h>

namespace {

using Parameters = SelvioFacialCaptureParameters;
using CameraParameters = SelvioFacialCaptureCameraParameters;
using Results = SelvioFacialCaptureResults;
using Status = SelvioFacialCaptureStatus;

TEST(Results, LookUpsCoverTheirTablesAndNothingElse) {
    EXPECT_EQ(Results::localizeKeyFrom(SelvioFacialCaptureStatusMoveCloser),
              "selvio_facial_capture_status_move_closer");
    for (const int outside : {-1, 15}) EXPECT_EQ(Results::localizeKeyFrom(static_cast<Status>(outside)), std::nullopt);
    for (const int outside : {-1, 4})
        EXPECT_EQ(Results::stringFrom(static_cast<SelvioFacialCaptureResultCode>(outside)), std::nullopt);
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

TEST(Parameters, SettersClampAndTheFillBoundsKeepTheirDistance) {
    using Dictionary = std::map<std::string, std::string>;
    const Dictionary defaults = {{"Mode", "2"},
                                 {"Timeout", "20"},
                                 {"MinFill", "550"},
                                 {"MaxFill", "725"},
                                 {"Roll", "500"},
                                 {"Pitch", "500"},
                                 {"Yaw", "500"},
                                 {"ImageQuality", "95"},
                                 {"SelectOnSmile", "0"},
                                 {"CountdownTime", "2"},
                                 {"RecordVideo", "0"},
                                 {"RecordAudio", "0"},
                                 {"ShowRecordingUI", "1"},
                                 {"VideoQuality", "10"}};
    struct Row {
        void (*change)(Parameters&);
        Dictionary changes;
    };
    const std::vector<Row> rows = {
        {[](Parameters& p) { p.setMode(0); }, {}},
        {[](Parameters& p) { p.setMode(3); }, {}},
        {[](Parameters& p) { p.setTimeout(2); }, {{"Timeout", "3"}}},
        {[](Parameters& p) { p.setTimeout(31); }, {{"Timeout", "30"}}},
        {[](Parameters& p) { p.setMinFill(1000); }, {{"MinFill", "800"}, {"MaxFill", "900"}}},
        {[](Parameters& p) { p.setMaxFill(300); }, {{"MinFill", "400"}, {"MaxFill", "500"}}},
        {[](Parameters& p) { p.setMaxFill(650); }, {{"MaxFill", "650"}}},
        {[](Parameters& p) { p.setMaxFill(649); }, {{"MinFill", "549"}, {"MaxFill", "649"}}},
        {[](Parameters& p) { p.setRoll(-4); }, {{"Roll", "0"}}},
        {[](Parameters& p) { p.setPitch(1001); }, {{"Pitch", "1000"}}},
        {[](Parameters& p) { p.setYaw(1001); }, {{"Yaw", "1000"}}},
        {[](Parameters& p) { p.setImageQuality(4); }, {{"ImageQuality", "5"}}},
        {[](Parameters& p) { p.setImageQuality(101); }, {{"ImageQuality", "100"}}},
        {[](Parameters& p) { p.setCountdownTime(6); }, {{"CountdownTime", "5"}}},
        {[](Parameters& p) { p.cameraParameters()->setVideoQuality(9); }, {}},
        {[](Parameters& p) { p.cameraParameters()->setVideoQuality(101); }, {{"VideoQuality", "100"}}},
        {[](Parameters& p) { p.setCameraParameters(nullptr); }, {{"VideoQuality", "0"}, {"ShowRecordingUI", "0"}}},
    };
    for (const Row& row : rows) {
        Parameters parameters;
        row.change(parameters);
        Dictionary expected = row.changes;
        expected.insert(defaults.begin(), defaults.end());
        EXPECT_EQ(parameters.toDictionary(), expected) << &row - rows.data();
    }
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
    for (const int outside : {-1, 4}) EXPECT_EQ(CameraParameters::stringFrom(outside), std::nullopt);
}

}  // namespace
