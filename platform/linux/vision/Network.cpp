#include "platform/linux/vision/Network.h"

#include <xnnpack.h>

#include <array>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace selvio {
namespace {

void require(xnn_status status, const char* what) {
    if (status != xnn_status_success) {
        throw std::runtime_error(std::string("the neural network library cannot ") + what + " (status " +
                                 std::to_string(static_cast<int>(status)) + ")");
    }
}

struct Delete {
    void operator()(xnn_subgraph* subgraph) const { xnn_delete_subgraph(subgraph); }
    void operator()(xnn_runtime* runtime) const { xnn_delete_runtime(runtime); }
};
using Subgraph = std::unique_ptr<xnn_subgraph, Delete>;

/// Describes a model to the library. The input is external value 0, the parts of the outputs follow.
class SubgraphBuilder {
public:
    explicit SubgraphBuilder(const Model& model) : model_(model), ids_(model.tensors.size(), XNN_INVALID_VALUE_ID) {}

    Subgraph build() {
        std::vector<int> external{model_.input};
        for (const auto& parts : model_.outputs) external.insert(external.end(), parts.begin(), parts.end());
        xnn_subgraph_t subgraph = nullptr;
        require(xnn_create_subgraph(static_cast<std::uint32_t>(external.size()), 0, &subgraph), "start a network");
        subgraph_.reset(subgraph);
        for (std::size_t i = 0; i < external.size(); ++i) {
            define(external[i], static_cast<std::uint32_t>(i),
                   i == 0 ? XNN_VALUE_FLAG_EXTERNAL_INPUT : XNN_VALUE_FLAG_EXTERNAL_OUTPUT);
        }
        for (const ModelStep& step : model_.steps) add(step);
        return std::move(subgraph_);
    }

private:
    [[nodiscard]] const ModelTensor& tensor(int index) const { return model_.tensors[static_cast<std::size_t>(index)]; }

    std::uint32_t define(int index, std::uint32_t external, std::uint32_t flags) {
        const ModelTensor& described = tensor(index);
        std::vector<std::size_t> sides(described.shape.begin(), described.shape.end());
        // Slopes, one a channel, are wanted without the sides of 1 before them.
        if (!described.values.empty() && sides.size() == 3) sides.erase(sides.begin(), sides.end() - 1);
        auto& id = ids_[static_cast<std::size_t>(index)];
        require(
            xnn_define_tensor_value(subgraph_.get(), xnn_datatype_fp32, sides.size(), sides.data(),
                                    described.values.empty() ? nullptr : described.values.data(), external, flags, &id),
            "take in a tensor");
        return id;
    }

    std::uint32_t id(int index) {
        const auto known = ids_[static_cast<std::size_t>(index)];
        return known != XNN_INVALID_VALUE_ID ? known : define(index, XNN_INVALID_VALUE_ID, 0);
    }

    void add(const ModelStep& step) {
        constexpr float kMost = std::numeric_limits<float>::infinity();
        const float least = step.relu ? 0.0F : -kMost;
        const auto unsigned_ = [](int value) { return static_cast<std::uint32_t>(value); };
        const auto strideX = unsigned_(step.strideX);
        const auto strideY = unsigned_(step.strideY);
        const auto top = unsigned_(step.top);
        const auto right = unsigned_(step.right);
        const auto bottom = unsigned_(step.bottom);
        const auto left = unsigned_(step.left);
        xnn_subgraph_t const graph = subgraph_.get();
        const auto in = [&](std::size_t i) { return id(step.inputs[i]); };
        const std::uint32_t out = id(step.output);
        switch (step.op) {
            case ModelOperator::Convolution: {
                const auto& weights = tensor(step.inputs[1]).shape;
                require(xnn_define_convolution_2d(
                            graph, top, right, bottom, left, unsigned_(weights[1]), unsigned_(weights[2]), strideY,
                            strideX, 1, 1, 1, static_cast<std::size_t>(weights[3]),
                            static_cast<std::size_t>(weights[0]), least, kMost, in(0), in(1), in(2), out, 0),
                        "add a convolution");
                break;
            }
            case ModelOperator::DepthwiseConvolution: {
                const auto& weights = tensor(step.inputs[1]).shape;
                require(xnn_define_depthwise_convolution_2d(graph, top, right, bottom, left, unsigned_(weights[1]),
                                                            unsigned_(weights[2]), strideY, strideX, 1, 1, 1,
                                                            static_cast<std::size_t>(weights[3]), least, kMost, in(0),
                                                            in(1), in(2), out, 0),
                        "add a depthwise convolution");
                break;
            }
            case ModelOperator::Add:
                require(xnn_define_add2(graph, least, kMost, in(0), in(1), out, 0), "add a sum");
                break;
            case ModelOperator::Relu:
                require(xnn_define_clamp(graph, 0.0F, kMost, in(0), out, 0), "add a relu");
                break;
            case ModelOperator::Prelu:
                require(xnn_define_prelu(graph, in(0), in(1), out, 0), "add a prelu");
                break;
            case ModelOperator::MaxPool:
                require(xnn_define_max_pooling_2d(graph, top, right, bottom, left, unsigned_(step.kernelHeight),
                                                  unsigned_(step.kernelWidth), strideY, strideX, 1, 1, least, kMost,
                                                  in(0), out, 0),
                        "add a pooling");
                break;
            case ModelOperator::Pad: {
                std::array<std::size_t, 4> before{};
                std::array<std::size_t, 4> after{};
                const auto& amounts = tensor(step.inputs[1]).integers;
                for (std::size_t i = 0; i < 4; ++i) {
                    before[i] = static_cast<std::size_t>(amounts[2 * i]);
                    after[i] = static_cast<std::size_t>(amounts[2 * i + 1]);
                }
                require(xnn_define_static_constant_pad(graph, before.data(), after.data(), 0.0F, in(0), out, 0),
                        "add a border");
                break;
            }
            default:
                break;  // resolved when the model was read
        }
    }

    const Model& model_;
    Subgraph subgraph_;
    std::vector<std::uint32_t> ids_;  // of the tensors
};

// The library reads some bytes beyond the end of its inputs.
constexpr std::size_t kExtraFloats = (XNN_EXTRA_BYTES + sizeof(float) - 1) / sizeof(float);

}  // namespace

struct Network::Run::Copy {
    std::unique_ptr<xnn_runtime, Delete> runtime;
    std::vector<float> input;
    std::vector<std::vector<float>> outputs;
};

Network::Network(Model model) : model_(std::move(model)) {}
Network::~Network() = default;

Expected<std::shared_ptr<const Network>> Network::make(Model model) try {
    require(xnn_initialize(nullptr), "run on this processor");
    std::shared_ptr<const Network> network(new Network(std::move(model)));
    (void)network->borrow();  // so that a model that cannot be run is refused now, and the first run need not wait
    return network;
} catch (const std::exception& exception) {
    return Error{exception.what()};
}

std::size_t Network::outputSize(std::size_t output) const {
    std::size_t size = 0;
    for (const int part : model_.outputs[output]) size += model_.tensors[index(part)].elements();
    return size;
}

std::unique_ptr<Network::Run::Copy> Network::makeCopy() const {
    auto copy = std::make_unique<Run::Copy>();
    const Subgraph subgraph = SubgraphBuilder(model_).build();
    xnn_runtime_t runtime = nullptr;
    require(xnn_create_runtime_v2(subgraph.get(), nullptr, 0, &runtime), "set up a network");
    copy->runtime.reset(runtime);

    copy->input.resize(model_.tensors[index(model_.input)].elements() + kExtraFloats);
    std::vector<xnn_external_value> external{{0, copy->input.data()}};
    for (std::size_t i = 0; i < model_.outputs.size(); ++i) {
        auto& output = copy->outputs.emplace_back(outputSize(i));
        float* at = output.data();
        for (const int part : model_.outputs[i]) {
            external.push_back({static_cast<std::uint32_t>(external.size()), at});
            at += model_.tensors[index(part)].elements();
        }
    }
    require(xnn_setup_runtime(runtime, external.size(), external.data()), "set up a network's memory");
    return copy;
}

Network::Run Network::borrow() const {
    {
        const std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            auto copy = std::move(idle_.back());
            idle_.pop_back();
            return {*this, std::move(copy)};
        }
    }
    return {*this, makeCopy()};
}

Network::Run::Run(const Network& network, std::unique_ptr<Copy> copy) : network_(network), copy_(std::move(copy)) {}

Network::Run::~Run() {
    const std::lock_guard lock(network_.mutex_);
    network_.idle_.push_back(std::move(copy_));
}

std::span<float> Network::Run::input() {
    return std::span(copy_->input).first(copy_->input.size() - kExtraFloats);
}

void Network::Run::run() {
    require(xnn_invoke_runtime(copy_->runtime.get()), "run a network");
}

std::span<const float> Network::Run::output(std::size_t index) const {
    return copy_->outputs[index];
}

}  // namespace selvio
