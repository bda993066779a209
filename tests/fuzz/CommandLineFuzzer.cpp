// The program's arguments, one a line.
#include "CommandLine.h"
#include "FuzzSupport.h"

void selvio::check(std::string_view input) {
    std::vector<std::string> arguments;
    std::istringstream lines{std::string(input)};
    for (std::string line; std::getline(lines, line);) arguments.push_back(line);
    std::variant<app::Command, app::ExitCode> asked;
    const std::string printed = printedBy([&] { asked = app::parseCommandLine(arguments); });
    const auto* const code = std::get_if<app::ExitCode>(&asked);
    require(!code || *code == app::ExitCode::Success || *code == app::ExitCode::Usage, "it ends in order");
    require(!code || !printed.empty(), "it says why it ends");
}
