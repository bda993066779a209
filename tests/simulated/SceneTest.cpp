// What stands before the simulated camera: scripts, geometries, and the frames that are drawn of them.
#include "tests/simulated/SimulatedSupport.h"

#include "tests/support/TrueFace.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstring>
#include <numbers>

namespace selvio {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
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
    const std::tuple<std::chrono::milliseconds, double, double, double, bool> rows[] = {
        {-1s, 0.2, 0, 1, false},     {1s, 0.2, 0, 1, false}, {2s, 0.4, 10, 0.5, false},
        {2999ms, 0.6, 20, 0, false}, {4s, 0.6, 20, 0, true}, {99s, 0.6, 20, 0, false}};
    for (const auto& [time, x, roll, rate, second] : rows) {
        SCOPED_TRACE(time.count());
        const MotionState state = once.value().stateAt(time);
        EXPECT_NEAR(state.face.center.x, x, 0.001);
        EXPECT_NEAR(state.face.roll, roll, 0.011);
        EXPECT_NEAR(state.rotationRate.y, rate, 0.001);
        EXPECT_EQ(state.second.has_value(), second);
        EXPECT_EQ(state.visible, time < 5s);
        EXPECT_EQ(state.barcode.has_value(), time < 5s);
        EXPECT_EQ(state.smiling, time >= 3s);
    }
    EXPECT_NEAR(parse("true").value().stateAt(8s).face.center.x, 0.4, 1e-9);
}

// Of what is brighter than the photograph's dark grey.
Point centroid(const PixelBuffer& frame) {
    double sum = 0, sumX = 0, sumY = 0;
    for (int y = 0; y < frame.height(); ++y) {
        for (int x = 0; x < frame.width(); ++x) {
            const double b = std::max(0.0, *test::sampleAt(frame, x, y) - (frame.planeCount() == 1 ? 50.0 : 59.0));
            sum += b;
            sumX += b * (x + 0.5);
            sumY += b * (y + 0.5);
        }
    }
    return {sumX / sum, sumY / sum};
}

TEST(SimulatedFrames, TruePointsLieWhereTheyAreDrawn) {
    for (const double jaw : {0.08, 0.6}) {
        for (const double roll : {0.0, -30.0, 90.0}) {
            const auto frames = spotFrames(R"({"at": 0, "visible": true, "center": [0.48, 0.55], "jawWidth": )" +
                                           std::to_string(jaw) + R"(, "roll": )" + std::to_string(roll) + "}");
            for (const auto& [width, height] : {std::pair{640, 360}, {241, 431}}) {
                const auto faces = frames->trueGeometry(0s, width, height);
                ASSERT_EQ(faces.size(), 1u);
                const Point left = faces[0].jawLeft, right = faces[0].jawRight, spot = faces[0].landmarks.at("spot");
                EXPECT_NEAR(std::hypot(right.x - left.x, right.y - left.y), jaw * std::min(width, height), 1e-3);
                EXPECT_NEAR(std::cos(std::atan2(right.y - left.y, right.x - left.x) - roll * std::numbers::pi / 180),
                            1.0, 1e-9);
                EXPECT_NEAR((left.x + right.x) / 2, 0.48 * width, 1e-6);
                EXPECT_NEAR((left.y + right.y) / 2, 0.55 * height, 1e-6);
                for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat420v}) {
                    const Point found = centroid(*frames->frame(0s, width, height, format));
                    EXPECT_NEAR(found.x, spot.x, 0.15) << width << " jaw " << jaw << " roll " << roll;
                    EXPECT_NEAR(found.y, spot.y, 0.15) << width << " jaw " << jaw << " roll " << roll;
                }
            }
        }
    }
}

TEST(SimulatedFrames, TheSameTimeGivesTheSameBytesAndNoiseDoesNotStandStill) {
    const auto bytesAt = [](std::chrono::seconds time) {
        const auto frame =
            spotFrames(std::string(R"({"noise": 3, )") + (kSteady + 1))->frame(time, 320, 576, kPixelFormat420v);
        return std::vector(frame->data(), frame->data() + frame->layout().byteSize());
    };
    EXPECT_TRUE(bytesAt(5s) == bytesAt(5s));
    EXPECT_FALSE(bytesAt(5s) == bytesAt(6s));
}

TEST(SimulatedFrames, LightAndNoiseAreWhatTheScriptSays) {
    const auto frame =
        spotFrames(R"({"at": 0, "visible": false, "light": 1.5, "noise": 4})")->frame(0s, 400, 400, kPixelFormat32BGRA);
    double sum = 0, squares = 0;
    for (int y = 0; y < 400; ++y) {
        for (int x = 0; x < 400; ++x) {
            const double value = test::sampleAt(*frame, x, y)[1];
            sum += value;
            squares += value * value;
        }
    }
    const double mean = sum / 160000;
    EXPECT_NEAR(mean, 75, 0.1);
    EXPECT_NEAR(std::sqrt(squares / 160000 - mean * mean), 4, 0.1);
    EXPECT_EQ(frame->data()[3], 255);
}

TEST(SimulatedFrames, BadInputIsNamed) {
    const auto script = MotionScript::parse(std::string("{\"keyFrames\": [") + kSteady + "]}", "test").value();
    FaceGeometry small = spotGeometry();
    small.width = 219;
    EXPECT_THAT(SimulatedFrames::make(spotPhotograph(), small, script).error().localizedDescription,
                HasSubstr("220 x 300 pixels, its face geometry states 219"));
    EXPECT_FALSE(SimulatedFrames::make(nullptr, spotGeometry(), script));
    EXPECT_EQ(spotFrames(kSteady)->frame(0s, 0, 5, kPixelFormat32BGRA), nullptr);
    EXPECT_EQ(spotFrames(kSteady)->frame(0s, 5, 5, kPixelFormat32ARGB), nullptr);
}

TEST(Samples, EachScriptShowsWhatItIsFor) {
    const auto geometry = FaceGeometry::load(SELVIO_SAMPLES "/astronaut.json").value();
    const auto grey = PixelBuffer::create(geometry.width, geometry.height, kPixelFormat32BGRA);
    const auto load = [&](const char* name) {
        const auto script = MotionScript::load(std::string(SELVIO_SAMPLES "/scripts/") + name);
        EXPECT_TRUE(script) << script.error().localizedDescription;
        return SimulatedFrames::make(grey, geometry, script.value()).value();
    };
    using Statuses = std::vector<SelvioFacialCaptureStatus>;
    const auto statusesAt = [](const SimulatedFrames& frames, std::chrono::milliseconds time) -> Statuses {
        const auto faces = frames.trueGeometry(time, 720, 1280);
        if (faces.size() != 1) return {SelvioFacialCaptureStatusMoreThanOneFace};
        rules::FaceChecksInput input = trueChecksInput(faces[0], {720, 1280}, {720, 1280});
        input.shouldHoldStill = std::abs(frames.script().stateAt(time).rotationRate.y) > 0.1;
        return rules::checkFace(input).statuses;
    };
    const auto demo = load("demo.json");
    const std::pair<std::chrono::milliseconds, Statuses> shown[] = {
        {1800ms, {SelvioFacialCaptureStatusMoreThanOneFace}},
        {3000ms, {SelvioFacialCaptureStatusMoveCloser}},
        {4700ms, {SelvioFacialCaptureStatusTooClose}},
        {7500ms, {SelvioFacialCaptureStatusNotCentered}},
        {9000ms, {SelvioFacialCaptureStatusFaceRoll, SelvioFacialCaptureStatusFacePitch}},
        {10500ms, {SelvioFacialCaptureStatusHoldStill}},
        {11000ms, {}}};
    for (const auto& [time, statuses] : shown) EXPECT_EQ(statusesAt(*demo, time), statuses) << time.count();
    for (const char* name : {"steady.json", "smile-first.json", "smile-later.json"})
        EXPECT_THAT(statusesAt(*load(name), 6s), ::testing::IsEmpty()) << name;
}

}  // namespace
}  // namespace selvio
