// Each input of a folder, then some thousand mutations of them, through a fuzzer's check; always the same ones.
//
//     fuzz_… FOLDER MUTATIONS
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void mutate(std::string& file, std::mt19937& random) {
    if (file.empty()) return;
    const std::size_t at = random() % file.size();
    const auto left = file.size() - at;
    switch (random() % 5) {
        case 0:
            file[at] = static_cast<char>(random());
            break;
        case 1:
            file[at] = static_cast<char>(static_cast<unsigned char>(file[at]) ^ (1U << random() % 8));
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

void check(const std::string& file) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 || !std::filesystem::is_directory(argv[1])) {
        std::cerr << "usage: " << argv[0] << " FOLDER MUTATIONS\n";
        return 2;
    }
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::vector<std::string> files;
    for (const auto& path : paths) {
        std::ifstream in(path, std::ios::binary);
        check(files.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
    }
    if (files.empty()) return 2;
    std::mt19937 random(1);
    for (int i = std::stoi(argv[2]); i > 0; --i) {
        std::string file = files[random() % files.size()];
        for (unsigned count = 1 + random() % 4; count > 0; --count) mutate(file, random);
        check(file);
    }
    return 0;
}
