// Each input of a folder, then some thousand mutations of them, through a fuzzer's check; always the same ones.
//
//     fuzz_… FOLDER MUTATIONS
#include <algorithm>
#include <cstdint>
#include <random>

#include "tests/support/TemporaryDirectory.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void mutate(std::string& file, std::mt19937& random) {
    if (file.empty()) return;
    const std::size_t at = random() % file.size();
    const std::uint32_t numbers[] = {0, 1, 0x7FFFFFFF, 0xFFFFFFFF, static_cast<std::uint32_t>(random())};
    switch (random() % 5) {
        case 0:
            file[at] = static_cast<char>(random());
            break;
        case 1:
            file[at] = static_cast<char>(file[at] ^ (1 << random() % 8));
            break;
        case 2:
            file.replace(at, 4, reinterpret_cast<const char*>(&numbers[random() % 5]), 4);
            break;
        case 3:
            file.replace(at, 8, file.substr(random() % file.size(), 8));
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
    if (argc != 3) return 2;
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1]))
        files.push_back(selvio::test::contentOf(entry.path()));
    if (files.empty()) return 2;
    std::sort(files.begin(), files.end());
    std::for_each(files.begin(), files.end(), check);
    std::mt19937 random(1);
    for (int i = std::stoi(argv[2]); i > 0; --i) {
        std::string file = files[random() % files.size()];
        for (auto count = 1 + random() % 4; count > 0; --count) mutate(file, random);
        check(file);
    }
    return 0;
}
