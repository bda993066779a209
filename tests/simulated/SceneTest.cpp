// What stands before the simulated camera: scripts, geometries, and the frames that are drawn of them.
#include "tests/simulated/SimulatedSupport.h"

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <numbers>
#include <numeric>

namespace selvio {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(SceneFiles, NameWhatIsWrong) {
    const std::string hidden = R"("keyFrames": [{"at": 0, "visible": false)";
    const std::pair<std::string, const char*> scripts[] = {
        {"\n\"keyFrames\": [\n  {\"at\": 0,}\n ]", "parse error at line 3, column 12: "},
        {R"("keyFrames": 3)", "keyFrames must be a list of 1 to 10000 key frames"},
        {"\"seed\": 1,\n\"seed\": 2", "line 2: the field \"seed\" is given twice in one object"},
        {R"("seed": 1.5)", "seed must be a whole number from 0 to 4294967295"},
        {hidden + R"(}], "loop": true)", "loop needs key frames that last longer"},
        {hidden + R"(}], "keyframes": [])", "keyframes is not a known field; known are "},
        {R"("keyFrames": [{"visible": false}])", "keyFrames[0].at is missing"},
        {R"("keyFrames": [{"at": 1, "visible": false}])", "keyFrames[0].at must be 0"},
        {R"("keyFrames": [{"at": 0, "visible": true, "jawWidth": 0.5}])", "keyFrames[0].center is missing for a visi"},
        {hidden + R"(, "center": [0.5]}])", "keyFrames[0].center must be a list of 2 numbers from -1 to 2"},
        {hidden + R"(, "jawWidth": 0}])", "keyFrames[0].jawWidth must be a number from 0.0"},
        {hidden + R"(, "second": {"center": [0, 0]}}])", "keyFrames[0].second.jawWidth "},
        {hidden + R"(}, {"at": 0}])", "keyFrames[1].at must be later"},
        {hidden + R"(, "hold": 2}, {"at": 1}])", "keyFrames[1].at falls into the hold"}};
    for (const auto& [json, message] : scripts) {
        const auto script = MotionScript::parse("{" + json + "}", "f");
        EXPECT_THAT(script ? "" : script.error().localizedDescription, StartsWith(std::string("f: ") + message));
    }
    for (const auto& [path, reason] : {std::pair{"/nowhere/x.json", "cannot be opened"}, {"/tmp", "is not a regular"}})
        EXPECT_THAT(MotionScript::load(path).error().localizedDescription, HasSubstr(reason));
    const std::pair<std::string, const char*> geometries[] = {
        {R"([10, 10], "jawRight": [61, 10])", "f: jawRight lies outside"},
        {R"([40, 10], "jawRight": [10, 10])", "f: jawLeft must lie to the left"},
        {R"([10, 10], "jawRight": [17, 10])", "f: the jaw is less than 8 pixels"},
        {R"([10, 10], "jawRight": [40, 10], "landmarks": {"chin": [5, 81]})", "f: landmarks.chin lies out"},
        {R"([10, 10], "jawRight": [40, 10], "landmarks": [])", "f: landmarks must be an object"}};
    for (const auto& [json, message] : geometries) {
        const auto geometry = FaceGeometry::parse(R"({"width": 60, "height": 80, "jawLeft": )" + json + "}", "f");
        EXPECT_THAT(geometry ? "" : geometry.error().localizedDescription, StartsWith(message));
    }
    EXPECT_EQ(FaceGeometry::pathBeside("a/b.c/face.jpg"), "a/b.c/face.json");
}

TEST(MotionScript, HoldsMovesAndSwitches) {
    const std::string json = R"({"keyFrames": [
        {"at": 0, "hold": 1, "visible": true, "center": [0.2, 0.4], "jawWidth": 0.5, "rotationRate": [0, 1, 0], "barcode": "A"},
        {"at": 3, "center": [0.6, 0.4], "roll": 20, "smiling": true, "second": {"center": [0.9, 0.5], "jawWidth": 0.2}, "rotationRate": [0, 0, 0]},
        {"at": 5, "hold": 1, "visible": false, "second": null, "barcode": null}], "loop": )";
    const auto once = MotionScript::parse(json + "false}", "s").value();
    EXPECT_EQ(once.duration(), 6s);
    EXPECT_TRUE(once.tellsSmile());
    const std::tuple<std::chrono::milliseconds, double, double, double, bool> rows[] = {
        {-1s, 0.2, 0, 1, false},     {1s, 0.2, 0, 1, false}, {2s, 0.4, 10, 0.5, false},
        {2999ms, 0.6, 20, 0, false}, {4s, 0.6, 20, 0, true}, {99s, 0.6, 20, 0, false}};
    for (const auto& [time, x, roll, rate, second] : rows) {
        SCOPED_TRACE(time.count());
        const MotionState state = once.stateAt(time);
        EXPECT_NEAR(state.face.center.x, x, 0.001);
        EXPECT_NEAR(state.face.roll, roll, 0.011);
        EXPECT_NEAR(state.rotationRate.y, rate, 0.001);
        EXPECT_EQ(std::tuple(state.second.has_value(), state.visible, state.barcode.has_value(), state.smiling),
                  std::tuple(second, time < 5s, time < 5s, time >= 3s));
    }
    EXPECT_NEAR(MotionScript::parse(json + "true}", "s").value().stateAt(8s).face.center.x, 0.4, 1e-9);
}

// Of what is brighter than the photograph's dark grey.
Point centroid(const PixelBuffer& frame) {
    double sum = 0, sumX = 0, sumY = 0;
    for (int i = 0; i < frame.width() * frame.height(); ++i) {
        const int x = i % frame.width(), y = i / frame.width();
        const double b = std::max(0.0, *test::sampleAt(frame, x, y) - (frame.planeCount() == 1 ? 50.0 : 59.0));
        sum += b, sumX += b * (x + 0.5), sumY += b * (y + 0.5);
    }
    return {sumX / sum, sumY / sum};
}

TEST(SimulatedFrames, TruePointsLieWhereTheyAreDrawn) {
    for (const auto& [jaw, roll] : {std::pair{0.08, 0.0}, {0.6, -30.0}, {0.6, 90.0}}) {
        const auto frames = spotFrames(R"({"at": 0, "visible": true, "center": [0.48, 0.55], "jawWidth": )" +
                                       std::to_string(jaw) + R"(, "roll": )" + std::to_string(roll) + "}");
        for (const auto& [width, height] : {std::pair{640, 360}, {241, 431}}) {
            SCOPED_TRACE(testing::Message() << width << " jaw " << jaw << " roll " << roll);
            const FrameFace face = frames->trueGeometry(0s, width, height).at(0);
            const Point left = face.jawLeft, right = face.jawRight, spot = face.landmarks.at("spot");
            EXPECT_NEAR(std::hypot(right.x - left.x, right.y - left.y), jaw * std::min(width, height), 1e-3);
            EXPECT_NEAR(std::atan2(right.y - left.y, right.x - left.x), roll * std::numbers::pi / 180, 1e-4);
            EXPECT_NEAR((left.x + right.x) / 2, 0.48 * width, 1e-6);
            EXPECT_NEAR((left.y + right.y) / 2, 0.55 * height, 1e-6);
            for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat420v}) {
                const Point found = centroid(*frames->frame(0s, width, height, format));
                EXPECT_NEAR(found.x, spot.x, 0.15);
                EXPECT_NEAR(found.y, spot.y, 0.15);
            }
        }
    }
}

TEST(SimulatedFrames, LightAndNoiseAreWhatTheScriptSaysAndTheSameTimeGivesTheSameFrame) {
    const auto valuesAt = [](std::chrono::seconds time) {
        const auto frame = spotFrames(R"({"at": 0, "visible": false, "light": 1.5, "noise": 4})")
                               ->frame(time, 400, 400, kPixelFormat32BGRA);
        std::vector<double> values;
        for (int i = 0; i < 160000; ++i) values.push_back(test::sampleAt(*frame, i % 400, i / 400)[1]);
        return values;
    };
    const auto values = valuesAt(5s);
    EXPECT_TRUE(values == valuesAt(5s));
    EXPECT_FALSE(values == valuesAt(6s)) << "the noise does not stand still";
    const double mean = std::accumulate(values.begin(), values.end(), 0.0) / 160000;
    const double squares = std::inner_product(values.begin(), values.end(), values.begin(), 0.0) / 160000;
    EXPECT_NEAR(mean, 75, 0.1);
    EXPECT_NEAR(std::sqrt(squares - mean * mean), 4, 0.1);
}

TEST(SimulatedFrames, BadInputIsNamed) {
    const auto frames = spotFrames(kSteady);
    FaceGeometry small = spotGeometry();
    small.width = 219;
    EXPECT_THAT(SimulatedFrames::make(spotPhotograph(), small, frames->script()).error().localizedDescription,
                HasSubstr("220 x 300 pixels, its face geometry states 219"));
    EXPECT_FALSE(SimulatedFrames::make(nullptr, spotGeometry(), frames->script()));
    EXPECT_EQ(frames->frame(0s, 0, 5, kPixelFormat32BGRA), nullptr);
    EXPECT_EQ(frames->frame(0s, 5, 5, kPixelFormat32ARGB), nullptr);
}

TEST(Samples, EveryScriptCanBeRead) {
    for (const auto& file : std::filesystem::directory_iterator(SELVIO_SAMPLES "/scripts"))
        EXPECT_TRUE(MotionScript::load(file.path())) << file.path();
}

}  // namespace
}  // namespace selvio
