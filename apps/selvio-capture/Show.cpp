// `show`: the record in a photograph or a file, for people or as it is.
#include "Commands.h"
#include "Record.h"

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>

#include <cmath>
#include <iomanip>
#include <iostream>

namespace selvio::app {
namespace {

using nlohmann::json;

void printMembers(const json& members, const std::map<std::string, std::string>& defaults = {}) {
    std::size_t width = 0;
    for (const auto& [key, value] : members.items()) width = std::max(width, key.size());
    for (const auto& [key, value] : members.items()) {
        std::cout << "  " << std::left << std::setw(static_cast<int>(width) + 2) << printable(key) << printable(value);
        const auto usual = defaults.find(key);
        if (usual != defaults.end() && usual->second != value) std::cout << "  (default " << usual->second << ')';
        std::cout << '\n';
    }
}

void printForPeople(json record) {
    const Language language = languageOfLocale();
    const json parameters = parametersOf(record);
    const auto events = eventsOf(record);
    record.erase("Parameters");
    record.erase("UXP");
    printMembers(record);
    std::cout << "\nParameters\n";
    printMembers(parameters, SelvioFacialCaptureParameters().toDictionary());
    std::cout << "\nUXP\n";
    for (const auto& [code, seconds] : events)
        std::cout << std::right << std::fixed << std::setprecision(3) << std::setw(10) << seconds.value_or(NAN)
                  << " s  " << std::left << std::setw(5) << printable(code) << textOfEvent(code, language) << '\n';
}

}  // namespace

ExitCode perform(const ShowOptions& options) {
    const auto found = findRecord(options.photograph);
    if (!found) return refuse(ExitCode::UnreadableInput, found.error());
    const std::string& text = found.value().text;
    if (options.json) {
        std::cout << text << (text.ends_with('\n') ? "" : "\n");
        return ExitCode::Success;
    }
    auto record = parseRecord(text);
    if (!record)
        return refuse(ExitCode::UnreadableInput,
                      {options.photograph + ": its data record is damaged; --json prints it as it is"});
    printForPeople(std::move(*record));
    return ExitCode::Success;
}

}  // namespace selvio::app
