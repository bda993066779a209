// Writes small model files, right ones and wrong ones.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace selvio::test {

struct TinyModel {
    struct Tensor {
        std::vector<int> shape;
        int type = 0;      ///< 0: 32-bit, 1: 16-bit floating point, 2: 32-bit whole numbers
        std::string data;  ///< of a constant
    };
    struct Step {
        int op = 0;
        std::vector<int> inputs{};
        std::vector<int> outputs{};
        std::map<std::size_t, std::variant<std::int8_t, std::int32_t>> options{};  ///< by their place in the format
    };
    std::vector<Tensor> tensors;
    std::vector<Step> steps;
    std::vector<int> inputs;
    std::vector<int> outputs;

    int add(Tensor tensor) {
        tensors.push_back(std::move(tensor));
        return static_cast<int>(tensors.size()) - 1;
    }
};

template <typename T>
std::string bytesOf(const std::vector<T>& values) {
    std::string bytes(values.size() * sizeof(T), '\0');
    if (!bytes.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

/// 4 x 4 pixels of 2 channels through a convolution and a prelu.
inline TinyModel smallModel() {
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

/// The tree of tables that a model file is: parents stand before what they refer to.
class TinyModelWriter {
public:
    static std::string write(const TinyModel& model) {
        Table graph;
        std::vector<Table> buffers(1);
        std::vector<Table> operators;
        std::vector<Table> tensors;
        std::vector<Table> steps;
        for (const auto& tensor : model.tensors) {
            const bool constant = !tensor.data.empty();
            tensors.push_back({{0, tensor.shape},
                               {1, static_cast<std::int8_t>(tensor.type)},
                               {2, static_cast<std::int32_t>(constant ? buffers.size() : 0)}});
            if (constant) buffers.push_back({{0, tensor.data}});
        }
        for (const auto& step : model.steps) {
            Table options;
            for (const auto& [index, value] : step.options)
                std::visit([&, place = index](auto v) { options[place] = v; }, value);
            steps.push_back({{0, static_cast<std::int32_t>(operators.size())},
                             {1, step.inputs},
                             {2, step.outputs},
                             {4, Child{{options}}}});
            operators.push_back({{3, static_cast<std::int32_t>(step.op)}});
        }
        TinyModelWriter writer;
        writer.number(0U);
        writer.bytes_ += "TFL3";
        writer.patch(
            0, writer.table({{1, operators},
                             {2, std::vector<Table>{{{0, tensors}, {1, model.inputs}, {2, model.outputs}, {3, steps}}}},
                             {4, buffers}}));
        return writer.bytes_;
    }

private:
    struct Field;
    using Table = std::map<std::size_t, Field>;
    struct Child {
        std::vector<Table> one;
    };
    struct Field {
        std::variant<std::int8_t, std::int32_t, std::vector<int>, std::string, Child, std::vector<Table>> value;
        template <typename T>
        Field(T v) : value(std::move(v)) {}
        Field() = default;
    };

    template <typename T>
    void number(T value) {
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    void patch(std::size_t at, std::size_t target) {
        const auto distance = static_cast<std::uint32_t>(target - at);
        std::memcpy(&bytes_[at], &distance, sizeof distance);
    }
    std::size_t table(const Table& fields) {
        const std::size_t count = fields.empty() ? 0 : fields.rbegin()->first + 1;
        const std::size_t list = bytes_.size();
        number(static_cast<std::uint16_t>(4 + 2 * count));
        number(static_cast<std::uint16_t>(4 + 4 * fields.size()));
        std::size_t place = 4;
        for (std::size_t i = 0; i < count; ++i) {
            number(static_cast<std::uint16_t>(fields.contains(i) ? place : 0));
            if (fields.contains(i)) place += 4;
        }
        const std::size_t start = bytes_.size();
        number(static_cast<std::int32_t>(start - list));
        for (const auto& [index, field] : fields) {
            const auto* const byte = std::get_if<std::int8_t>(&field.value);
            const auto* const whole = std::get_if<std::int32_t>(&field.value);
            number(byte != nullptr ? std::int32_t{*byte} : whole != nullptr ? *whole : 0);
        }
        std::size_t at = start;
        for (const auto& [index, field] : fields) {
            at += 4;
            if (const auto* const numbers = std::get_if<std::vector<int>>(&field.value)) {
                patch(at, bytes_.size());
                number(static_cast<std::uint32_t>(numbers->size()));
                for (const int value : *numbers) number(static_cast<std::int32_t>(value));
            } else if (const auto* const data = std::get_if<std::string>(&field.value)) {
                patch(at, bytes_.size());
                number(static_cast<std::uint32_t>(data->size()));
                bytes_ += *data;
            } else if (const auto* const child = std::get_if<Child>(&field.value)) {
                patch(at, table(child->one.front()));
            } else if (const auto* const tables = std::get_if<std::vector<Table>>(&field.value)) {
                patch(at, bytes_.size());
                number(static_cast<std::uint32_t>(tables->size()));
                const std::size_t first = bytes_.size();
                bytes_.append(4 * tables->size(), '\0');
                for (std::size_t i = 0; i < tables->size(); ++i) patch(first + 4 * i, table((*tables)[i]));
            }
        }
        return start;
    }

    std::string bytes_;
};

}  // namespace selvio::test
