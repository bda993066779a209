// Some thousand mutations of a right model through the fuzzer's check; always the same ones.
//
//     fuzz_model_file_short                   runs them
//     fuzz_model_file_short --seeds FOLDER    writes the right model, for the fuzzer to start from
#include "vision/TinyModel.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <random>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr int kMutations = 50'000;

void mutate(std::string& file, std::mt19937& random) {
    const std::size_t at = random() % file.size();
    const auto left = file.size() - at;
    switch (random() % 5) {
        case 0:
            file[at] = static_cast<char>(random());
            break;
        case 1:
            file[at] = static_cast<char>(file[at] ^ (1U << random() % 8));
            break;
        case 2: {
            const std::uint32_t values[] = {0, 1, 0x7FFFFFFF, 0xFFFFFFFF, static_cast<std::uint32_t>(random())};
            if (left >= sizeof values[0])
                std::memcpy(&file[at], &values[random() % std::size(values)], sizeof values[0]);
            break;
        }
        case 3:
            file.replace(at, std::min<std::size_t>(left, 8), file.substr(random() % file.size(), 8));
            break;
        default:
            file.resize(at + 1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool writes = argc == 3 && std::strcmp(argv[1], "--seeds") == 0;
    if (argc != 1 && !writes) {
        std::cerr << "usage: fuzz_model_file_short [--seeds FOLDER]\n";
        return 2;
    }
    const std::string model = selvio::test::TinyModelWriter::write(selvio::test::smallModel());
    if (writes) {
        const std::string path = std::string(argv[2]) + "/small.tflite";
        if (std::ofstream(path, std::ios::binary) << model) return 0;
        std::cerr << path << " cannot be written\n";
        return 6;
    }
    std::mt19937 random(1);
    for (int i = 0; i < kMutations; ++i) {
        std::string file = model;
        for (unsigned count = 1 + random() % 4; count > 0; --count) mutate(file, random);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
    }
    return 0;
}
