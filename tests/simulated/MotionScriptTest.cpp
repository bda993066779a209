#include <SelvioFacialCapture/simulated/FaceGeometry.h>
#include <SelvioFacialCapture/simulated/MotionScript.h>
#include <gmock/gmock.h>

#include <chrono>

namespace selvio {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

TEST(MotionScript, NamesWhatIsWrong) {
    const struct {
        const char* json;
        const char* message;
    } rows[] = {
        {"{\n \"keyFrames\": [\n  {\"at\": 0,}\n ]}", "face.json:3:12: "},
        {R"({"keyFrames": 3})", "keyFrames must be a list of 1 to 10000 key frames"},
        {R"([])", "the file must be an object"},
        {R"({"keyFrames": [{"at": 0, "visible": false}], "keyframes": []})",
         "keyframes is not a known field; known are keyFrames, loop, seed"},
        {R"({"keyFrames": [{"at": 0, "visible": false}], "seed": 1, "seed": 2})", "\"seed\" is given twice"},
        {R"({"keyFrames": [{"at": 0, "visible": false}], "seed": 1.5})",
         "seed must be a whole number from 0 to 4294967295"},
        {R"({"keyFrames": [{"at": 0, "visible": false}], "loop": true})", "loop needs key frames that last longer"},
        {R"({"keyFrames": [{"visible": false}]})", "keyFrames[0].at is missing"},
        {R"({"keyFrames": [{"at": 1, "visible": false}]})", "keyFrames[0].at must be 0"},
        {R"({"keyFrames": [{"at": 0, "visible": true, "jawWidth": 0.5}]})",
         "keyFrames[0].center is missing for a visible face"},
        {R"({"keyFrames": [{"at": 0, "visible": 1}]})", "keyFrames[0].visible must be true or false"},
        {R"({"keyFrames": [{"at": 0, "visible": false, "center": [0.5]}]})",
         "keyFrames[0].center must be a list of 2 numbers from -1 to 2"},
        {R"({"keyFrames": [{"at": 0, "visible": false, "jawWidth": 0}]})",
         "keyFrames[0].jawWidth must be a number from 0.02 to 3"},
        {R"({"keyFrames": [{"at": 0, "visible": false, "second": {"center": [0, 0]}}]})",
         "keyFrames[0].second.jawWidth is missing"},
        {R"({"keyFrames": [{"at": 0, "visible": false, "barcode": 7}]})",
         "keyFrames[0].barcode must be a text or null"},
        {R"({"keyFrames": [{"at": 0, "visible": false, "noise": 1e999}]})", "face.json: "},
        {R"({"keyFrames": [{"at": 0, "visible": false}, {"at": 0}]})", "keyFrames[1].at must be later"},
        {R"({"keyFrames": [{"at": 0, "hold": 2, "visible": false}, {"at": 1}]})",
         "keyFrames[1].at falls into the hold"},
    };
    for (const auto& row : rows) {
        const auto script = MotionScript::parse(row.json, "face.json");
        ASSERT_FALSE(script) << row.json;
        EXPECT_THAT(script.error().localizedDescription, HasSubstr(row.message));
        EXPECT_THAT(script.error().localizedDescription, HasSubstr("face.json"));
    }
    EXPECT_THAT(MotionScript::load("/nowhere/x.json").error().localizedDescription,
                HasSubstr("/nowhere/x.json: cannot be opened"));
    EXPECT_THAT(MotionScript::load("/tmp").error().localizedDescription, HasSubstr("/tmp: is not a regular file"));
}

TEST(FaceGeometry, NamesWhatIsWrong) {
    const struct {
        const char* json;
        const char* message;
    } rows[] = {
        {R"({"width": 60, "height": 80, "jawLeft": [10, 10], "jawRight": [61, 10]})", "jawRight lies outside"},
        {R"({"width": 60, "height": 80, "jawLeft": [40, 10], "jawRight": [10, 10]})", "jawLeft must lie to the left"},
        {R"({"width": 60, "height": 80, "jawLeft": [10, 10], "jawRight": [17, 10]})", "less than 8 pixels"},
        {R"({"width": 60, "height": 80, "jawLeft": [10, 10], "jawRight": [40, 10], "landmarks": {"chin": [5, 81]}})",
         "landmarks.chin lies outside"},
        {R"({"width": 60, "height": 80, "jawLeft": [10, 10], "jawRight": [40, 10], "landmarks": []})",
         "landmarks must be an object"},
    };
    for (const auto& row : rows) {
        const auto geometry = FaceGeometry::parse(row.json, "g");
        ASSERT_FALSE(geometry) << row.json;
        EXPECT_THAT(geometry.error().localizedDescription, HasSubstr(row.message));
    }
    EXPECT_EQ(FaceGeometry::pathBeside("a/b.c/face.jpg"), "a/b.c/face.json");
}

TEST(MotionScript, HoldsMovesAndSwitches) {
    const char* const json = R"({"keyFrames": [
        {"at": 0, "hold": 1, "visible": true, "center": [0.2, 0.4], "jawWidth": 0.5, "rotationRate": [0, 1, 0], "barcode": "A"},
        {"at": 3, "center": [0.6, 0.4], "roll": 20, "smiling": true, "second": {"center": [0.9, 0.5], "jawWidth": 0.2}, "rotationRate": [0, 0, 0]},
        {"at": 5, "hold": 1, "visible": false, "second": null, "barcode": null}], "loop": LOOP})";
    const auto parse = [&](const std::string& loop) {
        return MotionScript::parse(std::string(json).replace(std::string(json).find("LOOP"), 4, loop), "s");
    };
    const auto once = parse("false");
    ASSERT_TRUE(once) << once.error().localizedDescription;
    EXPECT_EQ(once.value().duration(), 6s);
    EXPECT_TRUE(once.value().tellsSmile());
    const struct {
        std::chrono::milliseconds time;
        double x;
        double roll;
        double rate;
        bool visible;
        bool smiling;
        bool second;
        bool barcode;
    } rows[] = {
        {-1s, 0.2, 0, 1, true, false, false, true},   {1s, 0.2, 0, 1, true, false, false, true},
        {2s, 0.4, 10, 0.5, true, false, false, true}, {2999ms, 0.6, 20, 0, true, false, false, true},
        {3s, 0.6, 20, 0, true, true, true, true},     {4s, 0.6, 20, 0, true, true, true, true},
        {5s, 0.6, 20, 0, false, true, false, false},  {99s, 0.6, 20, 0, false, true, false, false},
    };
    for (const auto& row : rows) {
        const MotionState state = once.value().stateAt(row.time);
        EXPECT_NEAR(state.face.center.x, row.x, 0.001) << row.time.count();
        EXPECT_NEAR(state.face.roll, row.roll, 0.011) << row.time.count();
        EXPECT_NEAR(state.rotationRate.y, row.rate, 0.001) << row.time.count();
        EXPECT_EQ(state.visible, row.visible) << row.time.count();
        EXPECT_EQ(state.smiling, row.smiling) << row.time.count();
        EXPECT_EQ(state.second.has_value(), row.second) << row.time.count();
        EXPECT_EQ(state.barcode.has_value(), row.barcode) << row.time.count();
    }
    EXPECT_NEAR(parse("true").value().stateAt(8s).face.center.x, 0.4, 1e-9);
}

}  // namespace
}  // namespace selvio
