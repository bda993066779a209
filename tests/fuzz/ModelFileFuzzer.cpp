// The reader of model files.
#include "platform/linux/vision/ModelFile.h"

#include <cstdint>
#include <cstdlib>
#include <span>

using namespace selvio;

/// Accepted models must keep what the reader promises of them, whatever the bytes were.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parsed = parseModel(std::as_bytes(std::span(data, size)));
    if (!parsed) {
        if (parsed.error().localizedDescription.empty()) std::abort();
        return 0;
    }
    const Model& model = parsed.value();
    enum { Unknown, Constant, Computed };
    std::vector<int> known(model.tensors.size(), Unknown);
    for (std::size_t i = 0; i < known.size(); ++i) {
        const ModelTensor& tensor = model.tensors[i];
        if (tensor.values.empty() && tensor.integers.empty()) continue;
        known[i] = Constant;
        if (tensor.values.size() + tensor.integers.size() != tensor.elements()) std::abort();
    }
    known.at(static_cast<std::size_t>(model.input)) = Computed;
    for (const ModelStep& step : model.steps) {
        for (const int input : step.inputs) {
            if (known.at(static_cast<std::size_t>(input)) == Unknown) std::abort();
        }
        int& output = known.at(static_cast<std::size_t>(step.output));
        if (output != Unknown || model.tensors[static_cast<std::size_t>(step.output)].shape.size() != 4) std::abort();
        output = Computed;
    }
    if (model.outputs.empty()) std::abort();
    for (const auto& parts : model.outputs) {
        for (const int part : parts) {
            if (known.at(static_cast<std::size_t>(part)) != Computed) std::abort();
        }
    }
    return 0;
}
