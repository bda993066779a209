// Each input of a folder, then some thousand mutations of them, through a fuzzer's check; always the same ones.
//
//     fuzz_… FOLDER MUTATIONS
#include "FuzzSupport.h"

#include <algorithm>
#include <random>

namespace {

void mutate(std::string& file, std::mt19937& random) {
    if (file.empty()) return;
    const std::size_t at = random() % file.size();
    const std::uint32_t numbers[] = {0, 1, 0x7FFFFFFF, 0xFFFFFFFF, static_cast<std::uint32_t>(random())};
    const auto kind = random() % 5;
    if (kind == 0) file[at] = static_cast<char>(random());
    if (kind == 1) file[at] = static_cast<char>(file[at] ^ (1 << random() % 8));
    if (kind == 2) file.replace(at, 4, reinterpret_cast<const char*>(&numbers[random() % 5]), 4);
    if (kind == 3) file.replace(at, 8, file.substr(random() % file.size(), 8));
    if (kind == 4) file.resize(at + 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1]))
        files.push_back(selvio::contentOf(entry.path()));
    if (files.empty()) return 2;
    std::sort(files.begin(), files.end());
    std::for_each(files.begin(), files.end(), selvio::check);
    std::mt19937 random(1);
    for (int i = std::stoi(argv[2]); i > 0; --i) {
        std::string file = files[random() % files.size()];
        for (auto count = 1 + random() % 4; count > 0; --count) mutate(file, random);
        selvio::check(file);
    }
    return 0;
}
