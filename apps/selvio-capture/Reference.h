// The command line's reference in other forms than `--help`, made from the same table of options.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace selvio::app {

/// The manual page, in roff.
[[nodiscard]] std::string manualPage(const CLI::App& app);
/// The completion script of a shell: "bash", or "zsh", which runs the one for bash.
[[nodiscard]] std::string completionScript(const CLI::App& app, const std::string& shell);

}  // namespace selvio::app
