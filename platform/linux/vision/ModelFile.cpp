#include "platform/linux/vision/ModelFile.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace selvio {
namespace {

constexpr std::uintmax_t kMostBytes = 64U << 20U;
constexpr std::size_t kMostEntries = 4096;        // tensors, steps, buffers, kinds of operators
constexpr std::size_t kMostElements = 1U << 24U;  // of all tensors together

/// The words of a refusal; parseModel() makes an Error of them.
class Refused : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

void require(bool holds, const char* otherwise) {
    if (!holds) throw Refused(otherwise);
}

/// The file is a tree of tables that refer to each other by offsets. Every access is checked.
class Tables {
public:
    /// Where a table begins, or a field's value lies.
    using Position = std::size_t;

    explicit Tables(std::span<const std::byte> file) : file_(file) {}

    [[nodiscard]] Position root() const { return follow(0); }

    /// A field of a table; 0 when it is left out.
    [[nodiscard]] Position field(Position table, std::size_t index) const {
        // The table begins with the distance back to the list of its fields.
        const auto list = static_cast<std::int64_t>(table) - read<std::int32_t>(table);
        require(list >= 0, "an offset leads out of the file");
        const auto fields = static_cast<Position>(list);
        const std::size_t entry = 4 + 2 * index;
        if (entry + 2 > read<std::uint16_t>(fields)) return 0;
        const auto offset = read<std::uint16_t>(fields + entry);
        return offset == 0 ? 0 : table + offset;
    }
    template <typename T>
    [[nodiscard]] T value(Position table, std::size_t index, T absent) const {
        const Position position = field(table, index);
        return position == 0 ? absent : read<T>(position);
    }
    /// A table that a field refers to; 0 when the field is left out.
    [[nodiscard]] Position child(Position table, std::size_t index) const {
        const Position position = field(table, index);
        return position == 0 ? 0 : follow(position);
    }
    [[nodiscard]] std::vector<Position> children(Position table, std::size_t index) const {
        const auto [first, count] = list(table, index, sizeof(std::uint32_t));
        require(count <= kMostEntries, "it has too many parts");
        std::vector<Position> result;
        for (std::size_t i = 0; i < count; ++i) result.push_back(follow(first + 4 * i));
        return result;
    }
    [[nodiscard]] std::vector<int> numbers(Position table, std::size_t index) const {
        const auto [first, count] = list(table, index, sizeof(std::int32_t));
        require(count <= 16, "a list of numbers is too long");
        std::vector<int> result(count);
        for (std::size_t i = 0; i < count; ++i) result[i] = read<std::int32_t>(first + 4 * i);
        return result;
    }
    [[nodiscard]] std::span<const std::byte> bytes(Position table, std::size_t index) const {
        const auto [first, count] = list(table, index, 1);
        return file_.subspan(first, count);
    }

private:
    template <typename T>
    [[nodiscard]] T read(Position position) const {
        require(position <= file_.size() && sizeof(T) <= file_.size() - position, "an offset leads out of the file");
        T result;
        std::memcpy(&result, file_.data() + position, sizeof(T));
        return result;
    }
    [[nodiscard]] Position follow(Position position) const { return position + read<std::uint32_t>(position); }
    [[nodiscard]] std::pair<Position, std::size_t> list(Position table, std::size_t index, std::size_t size) const {
        const Position reference = field(table, index);
        if (reference == 0) return {0, 0};
        const Position position = follow(reference);
        const std::size_t count = read<std::uint32_t>(position);
        require(count <= (file_.size() - position - 4) / size, "a list reaches beyond the end of the file");
        return {position + 4, count};
    }

    const std::span<const std::byte> file_;
};

float halfToFloat(std::uint16_t half) {
    // The exponent of an infinity is not special in the wider format: it becomes a number that no finite half reaches.
    const std::uint32_t sign = (half & 0x8000U) << 16U;
    const float magnitude = std::bit_cast<float>((half & 0x7FFFU) << 13U) * 0x1p112F;
    return std::bit_cast<float>(std::bit_cast<std::uint32_t>(magnitude) | sign);
}
constexpr float kLargestHalf = 65504.0F;

/// The operators that are known.
constexpr std::array<std::pair<int, const char*>, 10> kNames{{{0, "Add"},
                                                              {2, "Concatenation"},
                                                              {3, "Convolution"},
                                                              {4, "DepthwiseConvolution"},
                                                              {6, "Dequantize"},
                                                              {17, "MaxPool"},
                                                              {19, "Relu"},
                                                              {22, "Reshape"},
                                                              {34, "Pad"},
                                                              {54, "Prelu"}}};

class Parser {
public:
    explicit Parser(std::span<const std::byte> file) : tables_(file) {}

    Model parse() {
        const auto root = tables_.root();
        const auto graphs = tables_.children(root, 2);
        require(graphs.size() == 1, "it does not hold exactly one network");
        readTensors(tables_.children(graphs[0], 0), tables_.children(root, 4));

        const auto inputs = tables_.numbers(graphs[0], 1);
        require(inputs.size() == 1, "it does not have exactly one input");
        model_.input = checked(inputs[0]);
        require(stateOf(model_.input) == State::Unwritten && isPicture(model_.input), "its input is not a picture");
        stateOf(model_.input) = State::Written;

        std::vector<int> operators;
        for (const auto table : tables_.children(root, 1)) {
            // Older files have a byte for the number.
            operators.push_back(
                std::max<int>(tables_.value<std::int8_t>(table, 0, 0), tables_.value<std::int32_t>(table, 3, 0)));
        }
        for (const auto table : tables_.children(graphs[0], 3)) {
            const auto index = tables_.value<std::uint32_t>(table, 0, 0);
            require(index < operators.size(), "a step has no operator");
            readStep(table, operators[index]);
        }

        for (const int output : tables_.numbers(graphs[0], 2)) {
            auto parts = partsOf(checked(output));
            for (const int part : parts) {
                require(isWritten(part) && part != model_.input, "an output is not computed");
                stateOf(part) = State::GraphOutput;
            }
            model_.outputs.push_back(std::move(parts));
        }
        require(!model_.outputs.empty(), "it has no output");
        return std::move(model_);
    }

private:
    enum class State { Unwritten, Constant, Written, Concatenated, GraphOutput };

    void readTensors(const std::vector<Tables::Position>& tensors, const std::vector<Tables::Position>& buffers) {
        std::size_t all = 0;
        for (const auto table : tensors) {
            ModelTensor tensor;
            tensor.shape = tables_.numbers(table, 0);
            require(tensor.shape.size() <= 4, "a tensor has more than four sides");
            std::size_t elements = 1;
            for (const int side : tensor.shape) {
                require(side >= 1 && static_cast<std::size_t>(side) <= kMostElements / elements,
                        "a tensor has an impossible shape");
                elements *= static_cast<std::size_t>(side);
            }
            all += elements;
            require(all <= kMostElements, "its tensors are too large");
            const auto buffer = tables_.value<std::uint32_t>(table, 2, 0);
            require(buffer < buffers.size(), "a tensor has no buffer");
            const auto bytes = tables_.bytes(buffers[buffer], 0);
            if (!bytes.empty()) readConstant(tensor, tables_.value<std::int8_t>(table, 1, 0), bytes, elements);
            states_.push_back(bytes.empty() ? State::Unwritten : State::Constant);
            model_.tensors.push_back(std::move(tensor));
        }
        joins_.resize(model_.tensors.size());
    }

    static void readConstant(ModelTensor& tensor, int type, std::span<const std::byte> bytes, std::size_t elements) {
        const auto copyTo = [&](auto& values, std::size_t count) {
            values.resize(count);
            require(bytes.size() == count * sizeof(values[0]), "a constant does not fill its tensor");
            std::memcpy(values.data(), bytes.data(), bytes.size());
        };
        if (type == 0) {
            copyTo(tensor.values, elements);
        } else if (type == 1) {
            std::vector<std::uint16_t> halves;
            copyTo(halves, elements);
            tensor.values.resize(elements);
            std::transform(halves.begin(), halves.end(), tensor.values.begin(), halfToFloat);
            require(std::none_of(tensor.values.begin(), tensor.values.end(),
                                 [](float v) { return std::abs(v) > kLargestHalf; }),
                    "a constant is not a finite number");
        } else if (type == 2) {
            copyTo(tensor.integers, elements);
        } else {
            throw Refused("a constant has the unknown type " + std::to_string(type));
        }
        require(std::all_of(tensor.values.begin(), tensor.values.end(), [](float v) { return std::isfinite(v); }),
                "a constant is not a finite number");
    }

    void readStep(Tables::Position table, int op) {
        const auto* const known = std::ranges::find(kNames, op, &std::pair<int, const char*>::first);
        if (known == kNames.end()) throw Refused("the operator number " + std::to_string(op) + " is not known");
        const std::string name = known->second;
        const auto outputs = tables_.numbers(table, 2);
        ModelStep step{.op = static_cast<ModelOperator>(op), .inputs = tables_.numbers(table, 1)};
        if (outputs.size() != 1) throw Refused(name + " does not have exactly one output");
        step.output = checked(outputs[0]);
        for (const int input : step.inputs) (void)checked(input);
        if (stateOf(step.output) != State::Unwritten) throw Refused(name + " writes a tensor that is known already");
        if (const auto options = tables_.child(table, 4); options != 0) readOptions(step, options);
        if (!takeIn(step)) throw Refused(name + " has inputs, options or a shape that are not supported");
    }

    void readOptions(ModelStep& step, Tables::Position options) {
        const auto byte = [&](std::size_t index) { return tables_.value<std::int8_t>(options, index, 0); };
        const auto number = [&](std::size_t index, int absent) {
            return tables_.value<std::int32_t>(options, index, absent);
        };
        const auto activation = [&](std::size_t index) {
            require(byte(index) == 0 || byte(index) == 1, "an activation is not supported");
            step.relu = byte(index) == 1;
        };
        const auto padding = [&] {
            require(byte(0) == 0 || byte(0) == 1, "a padding is not supported");
            samePadding_ = byte(0) == 0;
            step.strideX = number(1, 0);
            step.strideY = number(2, 0);
        };
        switch (step.op) {
            case ModelOperator::Add:
                activation(0);
                break;
            case ModelOperator::Convolution:
                padding();
                activation(3);
                require(number(4, 1) == 1 && number(5, 1) == 1, "a dilated convolution is not supported");
                break;
            case ModelOperator::DepthwiseConvolution:
                padding();
                require(number(3, 0) == 1, "a channel multiplier is not supported");
                activation(4);
                require(number(5, 1) == 1 && number(6, 1) == 1, "a dilated convolution is not supported");
                break;
            case ModelOperator::MaxPool:
                padding();
                step.kernelWidth = number(3, 0);
                step.kernelHeight = number(4, 0);
                activation(5);
                break;
            case ModelOperator::Concatenation:
                require(number(0, 0) >= 0 && number(0, 0) < 4, "a concatenation's axis is not supported");
                concatenationAxis_ = static_cast<std::size_t>(number(0, 0));
                activation(1);
                require(!step.relu, "an activation is not supported");
                break;
            default:
                break;
        }
    }

    /// Checks the shapes and keeps the step; false if they do not fit.
    bool takeIn(ModelStep& step) {
        const auto constant = [&](std::size_t i) { return stateOf(step.inputs[i]) == State::Constant; };
        const auto shape = [&](std::size_t i) -> const std::vector<int>& { return tensor(step.inputs[i]).shape; };
        const auto& result = tensor(step.output).shape;
        const std::size_t count = step.inputs.size();
        switch (step.op) {
            case ModelOperator::Dequantize:
                // The values are 32-bit already.
                if (count != 1 || tensor(step.inputs[0]).values.empty() || shape(0) != result) return false;
                tensor(step.output).values = std::exchange(tensor(step.inputs[0]).values, {});
                stateOf(step.output) = State::Constant;
                return true;
            case ModelOperator::Reshape:
                if (count < 1 || tensor(step.inputs[0]).elements() != tensor(step.output).elements()) return false;
                return join(step, {step.inputs[0]});
            case ModelOperator::Concatenation:
                return joinAll(step);
            default:
                break;
        }
        // The rest works on pictures.
        if (count < 1 || !isPicture(step.output) || !isPicture(step.inputs[0]) || !isWritten(step.inputs[0]))
            return false;
        const auto& picture = shape(0);
        std::vector<int> expected = picture;
        switch (step.op) {
            case ModelOperator::Add:
                if (count != 2 || !isWritten(step.inputs[1]) || shape(1) != picture) return false;
                break;
            case ModelOperator::Relu:
                if (count != 1) return false;
                break;
            case ModelOperator::Prelu:
                // One slope a channel: sides of 1 may stand before it.
                if (count != 2 || tensor(step.inputs[1]).values.size() != static_cast<std::size_t>(picture[3]) ||
                    shape(1).empty() || shape(1).back() != picture[3])
                    return false;
                break;
            case ModelOperator::Pad:
                if (count != 2 || tensor(step.inputs[1]).integers.size() != 8) return false;
                for (std::size_t i = 0; i < 8; ++i) {
                    const int added = tensor(step.inputs[1]).integers[i];
                    if (added < 0 || added > 4096) return false;
                    expected[i / 2] += added;
                }
                break;
            case ModelOperator::MaxPool:
                if (count != 1 || !applyKernel(step, step.kernelWidth, step.kernelHeight, expected)) return false;
                break;
            case ModelOperator::Convolution:
            case ModelOperator::DepthwiseConvolution: {
                if (count != 3 || !constant(1) || !constant(2)) return false;
                const auto& weights = shape(1);
                const auto channels = static_cast<std::size_t>(result[3]);
                const bool depthwise = step.op == ModelOperator::DepthwiseConvolution;
                if (weights.size() != 4 || tensor(step.inputs[1]).values.empty() ||
                    tensor(step.inputs[2]).values.size() != channels || shape(2).size() != 1)
                    return false;
                if (depthwise ? weights[0] != 1 || weights[3] != picture[3] || result[3] != picture[3]
                              : weights[0] != result[3] || weights[3] != picture[3])
                    return false;
                if (!applyKernel(step, weights[2], weights[1], expected)) return false;
                expected[3] = result[3];
                break;
            }
            default:
                return false;
        }
        if (expected != result) return false;
        stateOf(step.output) = State::Written;
        model_.steps.push_back(std::move(step));
        return true;
    }

    /// Reshapes and concatenations at the network's end only say how its outputs are put together.
    bool join(const ModelStep& step, const std::vector<int>& inputs) {
        std::vector<int> parts;
        for (const int input : inputs) {
            if (stateOf(input) != State::Written && stateOf(input) != State::Concatenated) return false;
            const auto& more = partsOf(input);
            parts.insert(parts.end(), more.begin(), more.end());
        }
        if (parts.size() > 16) return false;
        joins_[static_cast<std::size_t>(step.output)] = std::move(parts);
        stateOf(step.output) = State::Concatenated;
        return true;
    }

    bool joinAll(const ModelStep& step) {
        const auto& result = tensor(step.output).shape;
        if (step.inputs.empty() || concatenationAxis_ >= result.size()) return false;
        std::vector<int> expected = result;
        expected[concatenationAxis_] = 0;
        for (const int input : step.inputs) {
            const auto& shape = tensor(input).shape;
            if (shape.size() != result.size()) return false;
            for (std::size_t i = 0; i < shape.size(); ++i) {
                // One behind the other in memory: nothing to interleave with stands before the axis.
                if (i < concatenationAxis_ ? shape[i] != 1 : i > concatenationAxis_ && shape[i] != result[i])
                    return false;
            }
            expected[concatenationAxis_] += shape[concatenationAxis_];
        }
        return expected == result && join(step, step.inputs);
    }

    /// Makes the step's borders, and of the input's shape the output's.
    bool applyKernel(ModelStep& step, int width, int height, std::vector<int>& shape) const {
        const auto usable = [](int value) { return value >= 1 && value <= 64; };
        if (!usable(width) || !usable(height) || !usable(step.strideX) || !usable(step.strideY)) return false;
        if (!samePadding_ && (shape[1] < height || shape[2] < width)) return false;
        const auto walk = [&](int& side, int kernel, int stride, int& before, int& behind) {
            const int places = samePadding_ ? (side + stride - 1) / stride : (side - kernel) / stride + 1;
            const int zeros = samePadding_ ? std::max(0, (places - 1) * stride + kernel - side) : 0;
            before = zeros / 2;
            behind = zeros - before;
            side = places;
        };
        walk(shape[1], height, step.strideY, step.top, step.bottom);
        walk(shape[2], width, step.strideX, step.left, step.right);
        return true;
    }

    [[nodiscard]] std::vector<int> partsOf(int index) {
        return stateOf(index) == State::Concatenated ? joins_[static_cast<std::size_t>(index)] : std::vector{index};
    }
    [[nodiscard]] int checked(int index) const {
        require(index >= 0 && static_cast<std::size_t>(index) < model_.tensors.size(), "a tensor does not exist");
        return index;
    }
    [[nodiscard]] ModelTensor& tensor(int index) { return model_.tensors[static_cast<std::size_t>(index)]; }
    [[nodiscard]] State& stateOf(int index) { return states_[static_cast<std::size_t>(index)]; }
    [[nodiscard]] bool isWritten(int index) { return stateOf(index) == State::Written; }
    [[nodiscard]] bool isPicture(int index) { return tensor(index).shape.size() == 4 && tensor(index).shape[0] == 1; }

    const Tables tables_;
    Model model_;
    std::vector<State> states_;            // of the tensors
    std::vector<std::vector<int>> joins_;  // what joined tensors consist of
    // Options of the step that is being read.
    std::size_t concatenationAxis_ = 0;
    bool samePadding_ = false;
};

}  // namespace

std::size_t ModelTensor::elements() const {
    std::size_t result = 1;
    for (const int side : shape) result *= static_cast<std::size_t>(side);
    return result;
}

Expected<Model> parseModel(std::span<const std::byte> file) try {
    return Parser(file).parse();
} catch (const Refused& refused) {
    return Error{refused.what()};
}

Expected<Model> readModel(const std::string& path) {
    std::error_code code;
    const auto size = std::filesystem::file_size(path, code);
    std::ifstream file(path, std::ios::binary);
    if (code || !file) return Error{path + " cannot be read" + (code ? ": " + code.message() : "")};
    if (size > kMostBytes) return Error{path + " is too large for a model"};
    std::vector<std::byte> bytes(size);
    if (!file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size)))
        return Error{path + " cannot be read"};
    auto model = parseModel(bytes);
    if (!model) return Error{path + " is not a model that can be used: " + model.error().localizedDescription};
    return model;
}

}  // namespace selvio
