// A neural network that any number of threads run at once.
#pragma once

#include "platform/linux/vision/ModelFile.h"

#include <SelvioFacialCapture/base/Error.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace selvio {

/// Any thread. Each run has memory of its own, so that none waits for another.
class Network {
public:
    /// The error says what the model asks for that cannot be had.
    static Expected<std::shared_ptr<const Network>> make(Model model);
    ~Network();
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    [[nodiscard]] const std::vector<int>& inputShape() const { return model_.tensors[index(model_.input)].shape; }
    [[nodiscard]] std::size_t outputCount() const { return model_.outputs.size(); }
    /// How many numbers an output has.
    [[nodiscard]] std::size_t outputSize(std::size_t output) const;

    /// The borrowed use of one working copy: fill the input, run, read the outputs. One thread at a time; not longer
    /// than the network. Copies are made when all are in use and kept for later.
    class Run {
    public:
        ~Run();
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;

        /// Holds what the borrower before left in it.
        [[nodiscard]] std::span<float> input();
        /// On the calling thread. Throws std::runtime_error when memory is short.
        void run();
        [[nodiscard]] std::span<const float> output(std::size_t index) const;

    private:
        friend class Network;
        struct Copy;
        Run(const Network& network, std::unique_ptr<Copy> copy);
        const Network& network_;
        std::unique_ptr<Copy> copy_;
    };
    /// Throws std::runtime_error when memory is short.
    [[nodiscard]] Run borrow() const;

private:
    explicit Network(Model model);
    static std::size_t index(int tensor) { return static_cast<std::size_t>(tensor); }
    [[nodiscard]] std::unique_ptr<Run::Copy> makeCopy() const;

    const Model model_;
    mutable std::mutex mutex_;
    mutable std::vector<std::unique_ptr<Run::Copy>> idle_;  // guarded by mutex_
};

}  // namespace selvio
