#include <SelvioFacialCapture/simulated/FaceGeometry.h>
#include <SelvioFacialCapture/simulated/MotionScript.h>
#include <gmock/gmock.h>

#include <chrono>

namespace selvio {
namespace {

using namespace std::chrono_literals;
using ::testing::StartsWith;

template <typename Parsed>
std::string errorOf(const Expected<Parsed>& parsed) {
    return parsed ? "none" : parsed.error().localizedDescription;
}

TEST(MotionScript, NamesWhatIsWrong) {
    const std::pair<const char*, const char*> files[] = {
        {"{\n \"keyFrames\": [\n  {\"at\": 0,}\n ]}", "parse error at line 3, column 12: "},
        {R"({"keyFrames": 3})", "keyFrames must be a list of 1 to 10000 key frames"},
        {"{\"seed\": 1,\n\"seed\": 2}", "line 2: the field \"seed\" is given twice in one object"},
        {R"({"seed": 1.5})", "seed must be a whole number from 0 to 4294967295"},
        {R"({"loop": true, "keyFrames": [{"at": 0, "visible": false}]})", "loop needs key frames that last longer"},
        {R"({"keyFrames": [{"at": 0, "visible": false}], "keyframes": []})",
         "keyframes is not a known field; known are keyFrames, loop, seed"},
    };
    for (const auto& [json, message] : files)
        EXPECT_THAT(errorOf(MotionScript::parse(json, "face.json")), StartsWith(std::string("face.json: ") + message));
    const std::pair<std::string, const char*> keyFrames[] = {
        {R"({"visible": false})", "[0].at is missing"},
        {R"({"at": 1, "visible": false})", "[0].at must be 0"},
        {R"({"at": 0, "visible": true, "jawWidth": 0.5})", "[0].center is missing for a visible face"},
        {R"({"at": 0, "visible": false, "center": [0.5]})", "[0].center must be a list of 2 numbers from -1 to 2"},
        {R"({"at": 0, "visible": false, "jawWidth": 0})", "[0].jawWidth must be a number from 0.02 to 3"},
        {R"({"at": 0, "visible": false, "second": {"center": [0, 0]}})", "[0].second.jawWidth is missing"},
        {R"({"at": 0, "visible": false}, {"at": 0})", "[1].at must be later"},
        {R"({"at": 0, "hold": 2, "visible": false}, {"at": 1})", "[1].at falls into the hold"},
    };
    for (const auto& [json, message] : keyFrames) {
        EXPECT_THAT(errorOf(MotionScript::parse(R"({"keyFrames": [)" + json + "]}", "f")),
                    StartsWith(std::string("f: keyFrames") + message));
    }
    EXPECT_EQ(errorOf(MotionScript::load("/nowhere/x.json")), "/nowhere/x.json: cannot be opened");
    EXPECT_EQ(errorOf(MotionScript::load("/tmp")), "/tmp: is not a regular file");
}

TEST(FaceGeometry, NamesWhatIsWrong) {
    const std::pair<std::string, const char*> table[] = {
        {R"("jawLeft": [10, 10], "jawRight": [61, 10])", "g: jawRight lies outside"},
        {R"("jawLeft": [40, 10], "jawRight": [10, 10])", "g: jawLeft must lie to the left"},
        {R"("jawLeft": [10, 10], "jawRight": [17, 10])", "g: the jaw is less than 8 pixels"},
        {R"("jawLeft": [10, 10], "jawRight": [40, 10], "landmarks": {"chin": [5, 81]})", "g: landmarks.chin lies out"},
        {R"("jawLeft": [10, 10], "jawRight": [40, 10], "landmarks": [])", "g: landmarks must be an object"},
    };
    for (const auto& [json, message] : table)
        EXPECT_THAT(errorOf(FaceGeometry::parse(R"({"width": 60, "height": 80, )" + json + "}", "g")),
                    StartsWith(message));
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
        double x, roll, rate;
        bool second;
    } rows[] = {{-1s, 0.2, 0, 1, false},     {1s, 0.2, 0, 1, false}, {2s, 0.4, 10, 0.5, false},
                {2999ms, 0.6, 20, 0, false}, {4s, 0.6, 20, 0, true}, {99s, 0.6, 20, 0, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.time.count());
        const MotionState state = once.value().stateAt(row.time);
        EXPECT_NEAR(state.face.center.x, row.x, 0.001);
        EXPECT_NEAR(state.face.roll, row.roll, 0.011);
        EXPECT_NEAR(state.rotationRate.y, row.rate, 0.001);
        EXPECT_EQ(state.second.has_value(), row.second);
        EXPECT_EQ(state.visible, row.time < 5s);
        EXPECT_EQ(state.barcode.has_value(), row.time < 5s);
        EXPECT_EQ(state.smiling, row.time >= 3s);
    }
    EXPECT_NEAR(parse("true").value().stateAt(8s).face.center.x, 0.4, 1e-9);
}

}  // namespace
}  // namespace selvio
