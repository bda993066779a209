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
#include <random>
#include <sstream>
#include <thread>

namespace selvio::test {
namespace {

Expected<Model> parse(const std::string& file) {
    return parseModel(std::as_bytes(std::span(file)));
}

/// One picture, channels innermost.
struct Values {
    int height = 0;
    int width = 0;
    int channels = 0;
    std::vector<float> values;

    Values(int h, int w, int c)
        : height(h), width(w), channels(c), values(static_cast<std::size_t>(h) * static_cast<std::size_t>(w * c)) {}
    float& at(int y, int x, int c) { return values[static_cast<std::size_t>((y * width + x) * channels + c)]; }
    [[nodiscard]] bool contains(int y, int x) const { return y >= 0 && y < height && x >= 0 && x < width; }
};

/// Grows a random model and, with plain loops, what it makes of an input.
class RandomModel {
public:
    explicit RandomModel(unsigned seed) : random_(seed), now_(whole(5, 12), whole(5, 12), whole(1, 4)) {
        for (float& value : now_.values) value = real();
        input = now_.values;
        tensor_ = file.add({shapeOf(now_), 0, {}});
        file.inputs = {tensor_};
        // Every kind once, in any order, and some again.
        std::vector<int> kinds{0, 1, 2, 3, 4, 5, 6};
        std::shuffle(kinds.begin(), kinds.end(), random_);
        for (int i = 0; i < 4; ++i) kinds.push_back(whole(0, 6));
        for (const int kind : kinds) grow(kind);
        // Two parts of one output; the first is not used otherwise.
        const int before = tensor_;
        const Values earlier = now_;
        grow(0);
        for (const auto& [part, values] : {std::pair{tensor_, now_}, {sideBranch(before, earlier), side_}}) {
            const int flat = file.add({{1, static_cast<int>(values.values.size()), 1}, 0, {}});
            file.steps.push_back({22, {part}, {flat}, {}});
            ends_.push_back(flat);
            expected.insert(expected.end(), values.values.begin(), values.values.end());
        }
        const int joined = file.add({{1, static_cast<int>(expected.size()), 1}, 0, {}});
        file.steps.push_back({2, ends_, {joined}, {{0, 1}}});
        file.outputs = {joined};
    }

    TinyModel file;
    std::vector<float> input;
    std::vector<float> expected;

private:
    int whole(int least, int most) { return std::uniform_int_distribution<int>(least, most)(random_); }
    float real() { return std::uniform_real_distribution<float>(-1.0F, 1.0F)(random_); }
    static std::vector<int> shapeOf(const Values& v) { return {1, v.height, v.width, v.channels}; }

    /// A constant, as 32-bit numbers or as 16-bit ones that a step makes longer.
    int constant(const std::vector<int>& shape, std::vector<float>& values) {
        for (float& value : values) value = static_cast<float>(whole(-128, 128)) / 128.0F;  // exact in 16 bits
        if (whole(0, 1) == 0) return file.add({shape, 0, bytesOf(values)});
        std::vector<std::uint16_t> halves;
        for (const float value : values) {
            int exponent = 0;
            const float fraction = std::frexp(std::abs(value), &exponent);  // 0.5...1
            const int bits = value == 0.0F ? 0 : (exponent + 14) * 1024 + static_cast<int>((fraction * 2 - 1) * 1024);
            halves.push_back(static_cast<std::uint16_t>(bits + (value < 0.0F ? 0x8000 : 0)));
        }
        const int packed = file.add({shape, 1, bytesOf(halves)});
        const int unpacked = file.add({shape, 0, {}});
        file.steps.push_back({6, {packed}, {unpacked}, {}});
        return unpacked;
    }

    void append(TinyModel::Step step, Values result) {
        now_ = std::move(result);
        tensor_ = file.add({shapeOf(now_), 0, {}});
        step.outputs = {tensor_};
        file.steps.push_back(std::move(step));
    }

    int sideBranch(int from, const Values& values) {
        side_ = values;
        for (float& value : side_.values) value = std::max(value, 0.0F);
        const int result = file.add({shapeOf(side_), 0, {}});
        file.steps.push_back({19, {from}, {result}, {}});
        return result;
    }

    /// The result's size and where the first kernel begins, as the format defines them.
    static std::pair<int, int> placed(int side, int kernel, int stride, bool same) {
        if (!same) return {(side - kernel) / stride + 1, 0};
        const int count = (side + stride - 1) / stride;
        return {count, std::max(0, (count - 1) * stride + kernel - side) / 2};
    }

    void grow(int kind) {
        const bool relu = whole(0, 1) == 1;
        const auto activated = [&](float v) { return relu ? std::max(v, 0.0F) : v; };
        if (kind <= 2) {  // convolution, depthwise convolution, pooling
            const bool same = now_.height < 3 || now_.width < 3 || whole(0, 1) == 0;
            // The library has no use for pooling single values.
            const int kernelX = whole(kind == 2 ? 2 : 1, 3);
            const int kernelY = whole(1, 3);
            const int strideX = whole(1, 2);
            const int strideY = whole(1, 2);
            const int channels = kind == 0 ? whole(1, 5) : now_.channels;
            const auto [height, top] = placed(now_.height, kernelY, strideY, same);
            const auto [width, left] = placed(now_.width, kernelX, strideX, same);
            std::vector<float> weights(static_cast<std::size_t>(kernelX * kernelY * channels) *
                                       static_cast<std::size_t>(kind == 0 ? now_.channels : 1));
            std::vector<float> bias(static_cast<std::size_t>(channels));
            TinyModel::Step step{.op = kind == 0 ? 3 : kind == 1 ? 4 : 17, .inputs = {tensor_}};
            step.options = {{0, static_cast<std::int8_t>(same ? 0 : 1)}, {1, strideX}, {2, strideY}};
            if (kind == 2) {
                step.options.insert({{3, kernelX}, {4, kernelY}, {5, static_cast<std::int8_t>(relu ? 1 : 0)}});
            } else {
                step.inputs.push_back(constant(kind == 0 ? std::vector{channels, kernelY, kernelX, now_.channels}
                                                         : std::vector{1, kernelY, kernelX, channels},
                                               weights));
                step.inputs.push_back(constant({channels}, bias));
                if (kind == 1) step.options.insert({3, 1});
                step.options.insert({kind == 0 ? 3U : 4U, static_cast<std::int8_t>(relu ? 1 : 0)});
            }
            Values result(height, width, channels);
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    for (int c = 0; c < channels; ++c) {
                        double sum = kind == 2 ? -1e9 : static_cast<double>(bias[static_cast<std::size_t>(c)]);
                        for (int ky = 0; ky < kernelY; ++ky) {
                            for (int kx = 0; kx < kernelX; ++kx) {
                                const int sy = y * strideY - top + ky;
                                const int sx = x * strideX - left + kx;
                                if (!now_.contains(sy, sx)) continue;
                                const auto tap = static_cast<std::size_t>(ky * kernelX + kx);
                                if (kind == 2) {
                                    sum = std::max(sum, static_cast<double>(now_.at(sy, sx, c)));
                                } else if (kind == 1) {
                                    sum += static_cast<double>(now_.at(sy, sx, c) *
                                                               weights[tap * static_cast<std::size_t>(channels) +
                                                                       static_cast<std::size_t>(c)]);
                                } else {
                                    for (int i = 0; i < now_.channels; ++i) {
                                        const auto w = static_cast<std::size_t>(
                                            (c * kernelY * kernelX + static_cast<int>(tap)) * now_.channels + i);
                                        sum += static_cast<double>(now_.at(sy, sx, i) * weights[w]);
                                    }
                                }
                            }
                        }
                        result.at(y, x, c) = activated(static_cast<float>(sum));
                    }
                }
            }
            append(std::move(step), std::move(result));
        } else if (kind == 3) {  // prelu
            std::vector<float> slopes(static_cast<std::size_t>(now_.channels));
            const int slopesTensor = constant({1, 1, now_.channels}, slopes);
            Values result = now_;
            for (std::size_t i = 0; i < result.values.size(); ++i) {
                if (result.values[i] < 0) result.values[i] *= slopes[i % slopes.size()];
            }
            append({.op = 54, .inputs = {tensor_, slopesTensor}}, std::move(result));
        } else if (kind == 4) {  // a border of zeros
            const std::vector<int> amounts{0, 0, whole(0, 2), whole(0, 2), whole(0, 2), whole(0, 2), 0, whole(0, 2)};
            Values result(now_.height + amounts[2] + amounts[3], now_.width + amounts[4] + amounts[5],
                          now_.channels + amounts[7]);
            for (int y = 0; y < now_.height; ++y) {
                for (int x = 0; x < now_.width; ++x) {
                    for (int c = 0; c < now_.channels; ++c)
                        result.at(y + amounts[2], x + amounts[4], c) = now_.at(y, x, c);
                }
            }
            append({.op = 34, .inputs = {tensor_, file.add({{4, 2}, 2, bytesOf(amounts)})}}, std::move(result));
        } else if (kind == 5) {  // relu
            Values result = now_;
            for (float& value : result.values) value = std::max(value, 0.0F);
            append({.op = 19, .inputs = {tensor_}}, std::move(result));
        } else {  // the sum with its own relu
            const int positive = sideBranch(tensor_, now_);
            Values result = now_;
            for (std::size_t i = 0; i < result.values.size(); ++i)
                result.values[i] = activated(result.values[i] + side_.values[i]);
            append({.op = 0, .inputs = {tensor_, positive}, .options = {{0, static_cast<std::int8_t>(relu ? 1 : 0)}}},
                   std::move(result));
        }
    }

    std::mt19937 random_;
    Values now_;
    Values side_{0, 0, 0};
    int tensor_ = 0;
    std::vector<int> ends_;
};

TEST(Network, ComputesWhatPlainLoopsDo) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        const RandomModel scenario(seed);
        auto model = parse(TinyModelWriter::write(scenario.file));
        ASSERT_TRUE(model) << seed << ": " << model.error().localizedDescription;
        const auto network = Network::make(std::move(model.value()));
        ASSERT_TRUE(network) << seed << ": " << network.error().localizedDescription;
        auto run = network.value()->borrow();
        ASSERT_EQ(run.input().size(), scenario.input.size());
        std::copy(scenario.input.begin(), scenario.input.end(), run.input().begin());
        run.run();
        const auto output = run.output(0);
        ASSERT_EQ(output.size(), scenario.expected.size());
        float largest = 1.0F;
        for (const float value : scenario.expected) largest = std::max(largest, std::abs(value));
        for (std::size_t i = 0; i < output.size(); ++i)
            ASSERT_NEAR(output[i], scenario.expected[i], 1e-4F * largest) << seed << " number " << i;
    }
}

TEST(Network, ServesSeveralBorrowersAtOnceWithoutMixingThem) {
    const RandomModel scenario(1);
    const auto network = Network::make(parse(TinyModelWriter::write(scenario.file)).value()).value();
    auto held = network->borrow();  // a borrower that never comes back holds up nobody
    std::fill(held.input().begin(), held.input().end(), 7.0F);
    std::vector<std::thread> threads;
    std::vector<int> wrong(4);
    for (int& mine : wrong) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                auto run = network->borrow();
                std::copy(scenario.input.begin(), scenario.input.end(), run.input().begin());
                run.run();
                for (std::size_t k = 0; k < scenario.expected.size(); ++k)
                    mine += std::abs(run.output(0)[k] - scenario.expected[k]) > 1e-2F ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, std::vector<int>(4));
    EXPECT_EQ(held.input()[0], 7.0F);
}

/// 4 x 4 pixels of 2 channels through a convolution and a prelu.
TinyModel smallModel() {
    TinyModel m;
    m.inputs = {m.add({{1, 4, 4, 2}, 0, {}})};
    m.add({{3, 1, 1, 2}, 0, bytesOf(std::vector<float>(6, 0.5F))});
    m.add({{3}, 0, bytesOf(std::vector<float>(3, 0.0F))});
    m.add({{1, 4, 4, 3}, 0, {}});
    m.add({{1, 1, 3}, 0, bytesOf(std::vector<float>(3, 0.25F))});
    m.outputs = {m.add({{1, 4, 4, 3}, 0, {}})};
    m.steps = {{3, {0, 1, 2}, {3}, {{0, std::int8_t{0}}, {1, 1}, {2, 1}, {3, std::int8_t{0}}}}, {54, {3, 4}, {5}, {}}};
    return m;
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
        {"Prelu", [](TinyModel& m) { m.steps[1].inputs = {3}; }},
        {"Convolution",
         [](TinyModel& m) {
             m.tensors[3].shape = {1, 4, 5, 3};
         }},
        {"Convolution",
         [](TinyModel& m) {
             m.tensors[1].shape = {3, 1, 2, 1};
         }},
        {"Convolution", [](TinyModel& m) { m.steps[0].options[1] = 0; }},
        {"Convolution", [](TinyModel& m) { m.steps[0].options[2] = -1; }},
        {"Convolution", [](TinyModel& m) { m.steps[0].inputs[1] = 0; }},
        {"Convolution", [](TinyModel& m) { m.steps[0].inputs[0] = 5; }},  // not computed yet
        {"Prelu", [](TinyModel& m) { m.steps[1].outputs = {3}; }},        // computed already
        {"dilated", [](TinyModel& m) { m.steps[0].options[4] = 2; }},
        {"activation", [](TinyModel& m) { m.steps[0].options[3] = std::int8_t{3}; }},
        {"padding", [](TinyModel& m) { m.steps[0].options[0] = std::int8_t{2}; }},
        {"tensor does not exist", [](TinyModel& m) { m.steps[0].inputs[0] = 6; }},
        {"tensor does not exist", [](TinyModel& m) { m.outputs = {-1}; }},
        {"output is not computed", [](TinyModel& m) { m.outputs = {0}; }},
        {"output is not computed",
         [](TinyModel& m) {
             m.outputs = {5, 5};
         }},
        {"no output", [](TinyModel& m) { m.outputs = {}; }},
        {"one input",
         [](TinyModel& m) {
             m.inputs = {0, 3};
         }},
        {"not a picture", [](TinyModel& m) { m.inputs = {1}; }},
        {"impossible shape",
         [](TinyModel& m) {
             m.tensors[0].shape = {1, 1 << 30, 1 << 30, 2};
         }},
        {"too large",
         [](TinyModel& m) {
             m.add({{4096, 4096}, 0, {}});
         }},
        {"more than four",
         [](TinyModel& m) {
             m.tensors[0].shape = {1, 4, 4, 2, 1};
         }},
        {"does not fill", [](TinyModel& m) { m.tensors[2].data.pop_back(); }},
        {"unknown type 9", [](TinyModel& m) { m.tensors[2].type = 9; }},
        {"finite", [](TinyModel& m) { m.tensors[2].data = bytesOf(std::vector<float>(3, NAN)); }},
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
