// Reads a neural network from a .tflite file: 32-bit tensors, constants and the ten operators that face networks use.
#pragma once

#include <SelvioFacialCapture/base/Error.h>

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace selvio {

/// The numbers are the file format's.
enum class ModelOperator : int {
    Add = 0,
    Concatenation = 2,
    Convolution = 3,
    DepthwiseConvolution = 4,
    Dequantize = 6,
    MaxPool = 17,
    Relu = 19,
    Reshape = 22,
    Pad = 34,
    Prelu = 54,
};

struct ModelTensor {
    std::vector<int> shape;     ///< batch, height, width, channels; 1 to 4 sides of at least 1
    std::vector<float> values;  ///< of a constant; otherwise empty
    std::vector<int> integers;  ///< of a constant list of numbers; otherwise empty

    [[nodiscard]] std::size_t elements() const;
};

/// One step; tensors by their index.
struct ModelStep {
    ModelOperator op = ModelOperator::Add;
    std::vector<int> inputs;
    int output = 0;
    int strideX = 1;
    int strideY = 1;
    int kernelWidth = 1;  ///< of max pooling; convolutions take theirs from the weights' shape
    int kernelHeight = 1;
    // Zeros around the input, in rows and columns. Pooling does not look at them.
    int top = 0;
    int bottom = 0;
    int left = 0;
    int right = 0;
    bool relu = false;  ///< negative results become 0
};

/// A network whose steps stand in the order in which they can be carried out. Every step's shapes agree with what it
/// computes, every input is the network's, a constant or an earlier step's output, and no tensor is written twice.
/// Dequantize, Reshape and Concatenation are resolved and do not occur.
struct Model {
    std::vector<ModelTensor> tensors;
    std::vector<ModelStep> steps;
    int input = 0;
    /// For each output of the network the tensors whose values, one behind the other, it consists of.
    std::vector<std::vector<int>> outputs;
};

/// Any bytes are safe to give. The error says what is wrong, an operator that is not known by its name or number.
[[nodiscard]] Expected<Model> parseModel(std::span<const std::byte> file);

/// Reads and parses a file. The error names the file.
[[nodiscard]] Expected<Model> readModel(const std::string& path);

}  // namespace selvio
