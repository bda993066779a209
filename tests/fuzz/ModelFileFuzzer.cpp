// The reader of model files.
#include "FuzzSupport.h"
#include "platform/linux/vision/ModelFile.h"

#include <span>

/// Accepted models must keep what the reader promises of them, whatever the bytes were.
void selvio::check(std::string_view input) {
    const auto parsed = parseModel(std::as_bytes(std::span(input)));
    if (!parsed) return requireReason(parsed.error().localizedDescription);
    const Model& model = parsed.value();
    enum { Unknown, Constant, Computed };
    std::vector<int> known;
    for (const ModelTensor& tensor : model.tensors) {
        const std::size_t constants = tensor.values.size() + tensor.integers.size();
        known.push_back(constants > 0 ? Constant : Unknown);
        require(constants == 0 || constants == tensor.elements(), "a constant has all its elements");
    }
    const auto at = [&](int tensor) -> int& { return known.at(static_cast<std::size_t>(tensor)); };
    at(model.input) = Computed;
    for (const ModelStep& step : model.steps) {
        for (const int each : step.inputs) require(at(each) != Unknown, "a step's inputs come before it");
        require(std::exchange(at(step.output), Computed) == Unknown, "a tensor is made once");
        require(model.tensors[static_cast<std::size_t>(step.output)].shape.size() == 4, "a step makes four dimensions");
    }
    require(!model.outputs.empty(), "a model has outputs");
    for (const auto& parts : model.outputs)
        for (const int part : parts) require(at(part) == Computed, "an output is computed");
}
