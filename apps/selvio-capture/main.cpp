// Takes one good photograph of a face. The program wires the component to its services and shows what it says; it
// decides nothing about faces.
#include "Commands.h"
#include "Texts.h"

#include <exception>
#include <iostream>

using namespace selvio::app;

int main(int argc, char** argv) try {
    const auto parsed = parseCommandLine({argv + 1, argv + argc});
    auto code = ExitCode::Success;
    if (const auto* command = std::get_if<Command>(&parsed)) {
        code = std::visit([](const auto& options) { return perform(options); }, *command);
    } else {
        code = std::get<ExitCode>(parsed);
    }
    if (!std::cout.flush() && code == ExitCode::Success) {
        complain("cannot write to standard output");
        code = ExitCode::NotWritten;
    }
    return static_cast<int>(code);
} catch (const std::exception& exception) {
    complain(exception.what());
    return static_cast<int>(ExitCode::Other);
}
