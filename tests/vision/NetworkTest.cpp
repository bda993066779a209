// The reader of model files and what runs them.
#include "platform/linux/vision/ModelFile.h"
#include "platform/linux/vision/Network.h"
#include "support/TemporaryDirectory.h"
#include "vision/TinyModel.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

namespace selvio::test {
namespace {

Expected<Model> parse(const std::string& file) {
    return parseModel(std::as_bytes(std::span(file)));
}

TEST(Network, ServesSeveralBorrowersAtOnceWithoutMixingThem) {
    const auto network = Network::make(parse(TinyModelWriter::write(smallModel())).value()).value();
    auto held = network->borrow();  // a borrower that never comes back holds up nobody
    std::fill(held.input().begin(), held.input().end(), 7.0F);
    std::vector<std::thread> threads;
    std::vector<int> wrong(4);
    for (int& mine : wrong) {
        threads.emplace_back([&, first = 10 * (&mine - wrong.data())] {
            for (std::ptrdiff_t i = 0; i < 200; ++i) {
                // Half the sum of a pixel's two channels, thrice; a quarter of it if it is negative.
                const float sum = static_cast<float>(first + i % 7 - 15);
                auto run = network->borrow();
                for (std::size_t k = 0; k < run.input().size(); ++k) run.input()[k] = k % 2 == 0 ? sum + 1.0F : -1.0F;
                run.run();
                mine += static_cast<int>(std::count_if(run.output(0).begin(), run.output(0).end(), [&](float v) {
                    return std::abs(v - (sum < 0 ? sum / 8.0F : sum / 2.0F)) > 1e-4F;
                }));
                mine += run.output(0).size() == 48 ? 0 : 1;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, std::vector<int>(4));
    EXPECT_EQ(held.input()[0], 7.0F);
}

TEST(ModelFile, RefusesWhatItDoesNotKnowByName) {
    ASSERT_TRUE(parse(TinyModelWriter::write(smallModel())));
    struct Case {
        const char* words;
        std::function<void(TinyModel&)> spoil;
    };
    const Case cases[] = {
        {"operator number 99", [](TinyModel& m) { m.steps[1].op = 99; }},
        {"Prelu",
         [](TinyModel& m) {
             m.tensors[4] = {{1, 1, 2}, 0, bytesOf(std::vector<float>(2))};
         }},
        {"Convolution",
         [](TinyModel& m) {
             m.tensors[3].shape = {1, 4, 5, 3};
         }},
        {"Convolution", [](TinyModel& m) { m.steps[0].options[1] = 0; }},
        {"Convolution", [](TinyModel& m) { m.steps[0].inputs[0] = 5; }},  // not computed yet
        {"Prelu", [](TinyModel& m) { m.steps[1].outputs = {3}; }},        // computed already
        {"dilated", [](TinyModel& m) { m.steps[0].options[4] = 2; }},
        {"tensor does not exist", [](TinyModel& m) { m.steps[0].inputs[0] = 6; }},
        {"output is not computed", [](TinyModel& m) { m.outputs = {0}; }},
        {"not a picture", [](TinyModel& m) { m.inputs = {1}; }},
        {"impossible shape",
         [](TinyModel& m) {
             m.tensors[0].shape = {1, 1 << 30, 1 << 30, 2};
         }},
        {"too large",
         [](TinyModel& m) {
             m.add({{4096, 4096}, 0, {}});
         }},
        {"does not fill", [](TinyModel& m) { m.tensors[2].data.pop_back(); }},
        {"finite",
         [](TinyModel& m) {
             m.tensors[2] = {{3}, 1, bytesOf(std::vector<std::uint16_t>(3, 0xFC00))};
         }},
    };
    for (const Case& c : cases) {
        TinyModel model = smallModel();
        c.spoil(model);
        const auto parsed = parse(TinyModelWriter::write(model));
        ASSERT_FALSE(parsed) << c.words;
        EXPECT_NE(parsed.error().localizedDescription.find(c.words), std::string::npos)
            << c.words << ": " << parsed.error().localizedDescription;
    }
}

TEST(ModelFile, SaysWhichFileIsMissingOrDamaged) {
    const TemporaryDirectory directory;
    const VisionOptions good;
    std::ostringstream content;
    content << std::ifstream(good.meshModelPath, std::ios::binary).rdbuf();
    const std::string whole = content.str();
    ASSERT_GT(whole.size(), 1'000'000U);
    std::string flipped = whole;
    for (std::size_t i = 100; i < flipped.size(); i += 97) flipped[i] = static_cast<char>(~flipped[i]);
    const std::string paths[] = {"/nonexistent/model.tflite",
                                 "/",
                                 directory.write("empty", ""),
                                 directory.write("text", "this is not a model"),
                                 directory.write("truncated", whole.substr(0, whole.size() - 50'000)),
                                 directory.write("flipped", flipped),
                                 directory.write("other", TinyModelWriter::write(smallModel())),
                                 good.detectionModelPath};  // a good one, for something else
    for (const std::string& path : paths) {
        VisionOptions options;
        options.meshModelPath = path;
        const auto error = waitForVisionModels(options);
        ASSERT_TRUE(error) << path;
        EXPECT_NE(error->localizedDescription.find(path), std::string::npos) << error->localizedDescription;
        EXPECT_NE(error->localizedDescription.find("scripts/install-deps.sh"), std::string::npos)
            << error->localizedDescription;
    }
    EXPECT_FALSE(waitForVisionModels());
}

}  // namespace
}  // namespace selvio::test
