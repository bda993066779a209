#include "Reference.h"

#include "Texts.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <vector>

namespace selvio::app {
namespace {

/// What is hidden has no group.
std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const auto& name : option.get_snames()) names.push_back("-" + name);
    for (const auto& name : option.get_lnames()) names.push_back("--" + name);
    return names;
}

/// The type's name, and what its checks say: "NUMBER:INT in [3 - 30]" are two.
std::pair<std::string, std::string> typeOf(const CLI::Option& option) {
    const std::string type = option.get_items_expected_max() == 0 ? "" : option.get_type_name();
    const auto colon = type.find(':');
    return {type.substr(0, colon), colon == std::string::npos ? "" : type.substr(colon + 1)};
}

/// The words that an option takes, if it takes certain words only: "{auto,manual}".
std::string wordsOf(const CLI::Option& option) {
    std::string limits = typeOf(option).second;
    if (!limits.starts_with('{') || !limits.ends_with('}')) return "";
    std::ranges::replace(limits, ',', ' ');
    return limits.substr(1, limits.size() - 2);
}

std::string roff(const std::string& text) {
    const auto safe = replaced(text, {{'\\', "\\e"}, {'-', "\\-"}, {'\n', "\n.br\n"}});
    return safe.starts_with('.') || safe.starts_with('\'') ? "\\&" + safe : safe;
}

void writeOptions(std::ostringstream& page, const CLI::App& command) {
    for (const CLI::Option* option : command.get_options()) {
        const auto [type, limits] = typeOf(*option);
        page << ".TP\n\\fB" << roff(option->get_positional() ? option->get_name() : joined(namesOf(*option), ", "))
             << "\\fR";
        if (!type.empty()) page << " \\fI" << roff(type) << "\\fR";
        page << '\n' << roff(option->get_description());
        if (!limits.empty()) page << " (" << roff(limits) << ")";
        page << '\n';
    }
}

}  // namespace

std::string manualPage(const CLI::App& app) {
    const std::string name = roff(app.get_name());
    std::string summary = app.get_description();
    std::ostringstream page;
    page << ".TH \"" << name << "\" 1 \"\" \"" << roff(app.version()) << "\" \"User Commands\"\n.SH NAME\n"
         << name << " \\- " << roff(summary) << "\n.SH SYNOPSIS\n\\fB" << name
         << "\\fR [\\fIcommand\\fR] [\\fIoption\\fR]...\n.SH OPTIONS\n";
    writeOptions(page, app);
    page << ".SH COMMANDS\n";
    for (const CLI::App* command : commandsOf(app)) {
        page << ".SS \"" << name << ' ' << roff(command->get_name()) << "\"\n"
             << roff(command->get_description()) << '\n';
        writeOptions(page, *command);
    }
    page << ".SH \"EXIT STATUS\"\n" << roff(app.get_footer()) << '\n';
    return page.str();
}

std::string completionScript(const CLI::App& app, const std::string& shell) {
    std::vector<std::string> commands;
    std::ostringstream options;
    std::ostringstream values;
    for (const CLI::App* command : commandsOf(app)) {
        commands.push_back(command->get_name());
        std::vector<std::string> names;
        for (const CLI::Option* option : command->get_options()) {
            const auto own = namesOf(*option);
            names.insert(names.end(), own.begin(), own.end());
            std::string patterns;
            for (const auto& each : own) patterns += (patterns.empty() ? "" : " | ") + command->get_name() + "," + each;
            const auto words = wordsOf(*option);
            if (!words.empty()) values << "        " << patterns << ") words='" << words << "' ;;\n";
        }
        options << "            " << command->get_name() << ") words='" << joined(names, " ") << "' ;;\n";
    }
    std::vector<std::string> ofTheProgram;
    for (const CLI::Option* option : app.get_options()) {
        const auto own = namesOf(*option);
        ofTheProgram.insert(ofTheProgram.end(), own.begin(), own.end());
    }

    std::ostringstream script;
    if (shell == "zsh") script << "#compdef " << app.get_name() << "\nautoload -U +X bashcompinit && bashcompinit\n";
    script << R"(_selvio_capture() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=run words=
    case ${COMP_WORDS[1]} in
        )" << joined(commands, " | ")
           << R"() command=${COMP_WORDS[1]} ;;
    esac
    case $command,$previous in
)" << values.str()
           << R"(    esac
    if [[ -z $words && $current == -* ]]; then
        case $command in
)" << options.str()
           << R"(        esac
        ((COMP_CWORD > 1)) || words+=' )"
           << joined(ofTheProgram, " ") << R"('
    elif [[ -z $words ]] && ((COMP_CWORD == 1)); then
        words=')"
           << joined(commands, " ") << R"('
    fi
    COMPREPLY=()
    while read -r; do COMPREPLY+=("$REPLY"); done < <(compgen -W "$words" -- "$current")
}
complete -o default -F _selvio_capture )"
           << app.get_name() << '\n';
    return script.str();
}

}  // namespace selvio::app
