// Random small models of all operators, and what they compute.
#pragma once

#include "vision/TinyModel.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

namespace selvio::test {

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

}  // namespace selvio::test
