// The program's arguments, one a line.
#include "CommandLine.h"
#include "FuzzSupport.h"

using namespace selvio;
using selvio::test::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments;
    std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
    for (std::string line; std::getline(lines, line);) arguments.push_back(line);
    const test::Muted muted;
    const auto asked = app::parseCommandLine(arguments);
    if (const auto* const code = std::get_if<app::ExitCode>(&asked)) {
        require(*code == app::ExitCode::Success || *code == app::ExitCode::Usage, "it ends in order");
        require(!muted.printed().empty(), "it says why it ends");
    }
    return 0;
}
