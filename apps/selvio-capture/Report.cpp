// `report`: a capture as a page that a browser shows and prints.
#include "Report.h"

#include "Commands.h"
#include "OutputFiles.h"
#include "Record.h"

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/imaging/Base64.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace selvio::app {
namespace {

using nlohmann::json;

// The policy lets a browser load nothing and run nothing, whatever a record has managed to write into the page.
constexpr std::string_view kHead = R"(<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; img-src data:; style-src 'unsafe-inline'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<style>
:root { --ink: #1a1c1f; --soft: #5a6068; --paper: #ffffff; --line: #d4d8dd; --bar: #2a6fb0; }
@media (prefers-color-scheme: dark) {
  :root { --ink: #e8eaed; --soft: #a6adb5; --paper: #17191c; --line: #3c4148; --bar: #7ab5ea; }
}
@media print { :root { --ink: #000; --soft: #444; --paper: #fff; --line: #999; --bar: #444; } }
* { box-sizing: border-box; }
body { margin: 2rem auto; max-width: 60rem; padding: 0 1rem; background: var(--paper); color: var(--ink);
  font: 1rem/1.5 system-ui, sans-serif; }
h1 { margin: 0; font-size: 1.6rem; }
h2 { margin: 2rem 0 .5rem; font-size: 1.15rem; }
.end { margin: .25rem 0 1.5rem; font-size: 1.2rem; }
.top { display: flex; flex-wrap: wrap; gap: 2rem; align-items: flex-start; }
.top img { max-width: min(20rem, 100%); border: 1px solid var(--line); }
.top section { flex: 1 1 18rem; }
.top h2 { margin-top: 0; }
table { width: 100%; border-collapse: collapse; }
th, td { padding: .25rem .75rem .25rem 0; border-bottom: 1px solid var(--line); text-align: start; vertical-align: top;
  overflow-wrap: anywhere; unicode-bidi: isolate; }
th { color: var(--soft); font-weight: 600; }
.number { text-align: end; font-variant-numeric: tabular-nums; white-space: nowrap; }
.bar { width: 35%; min-width: 6rem; padding-right: 0; vertical-align: middle; }
.bar svg { display: block; width: 100%; height: .75rem; fill: var(--bar); }
@media (max-width: 40rem) { .bar { display: none; } }
.changed td { font-weight: 600; }
tr, img { break-inside: avoid; }
</style>
)";

/// A value of the record as text of the page.
std::string escaped(const json& value) {
    return replaced(printable(value), {{'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#39;"}});
}

std::string number(double value) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << value;
    return text.str();
}

/// What was so from one time on, until something else was.
struct Moment {
    std::string codes;
    std::string firstCode;
    std::optional<double> seconds;
};

/// A frame may break several rules: its events then stand together, the most important first, which is the one that the
/// person was told. Frames that break the same rules make one moment.
std::vector<Moment> momentsOf(const std::vector<RecordedEvent>& events) {
    constexpr double kOneFrame = 0.005;  // its events are logged one right after the other
    const auto isFault = [](const std::string& code) { return code.starts_with("FE"); };
    std::vector<Moment> moments;
    for (const auto& [code, seconds] : events) {
        const bool sameFrame = !moments.empty() && seconds && moments.back().seconds && isFault(code) &&
                               isFault(moments.back().firstCode) && *seconds >= *moments.back().seconds &&
                               *seconds - *moments.back().seconds <= kOneFrame;
        if (sameFrame) {
            moments.back().codes += ' ' + code;
        } else {
            moments.push_back({code, code, seconds});
        }
    }
    const auto same = [](const Moment& a, const Moment& b) { return a.codes == b.codes; };
    moments.erase(std::unique(moments.begin(), moments.end(), same), moments.end());
    return moments;
}

class Page {
public:
    Page(json record, Language language) : record_(std::move(record)), language_(language) {}

    std::string write(const Bytes& photograph) {
        const auto title = words("Capture report", "Bericht der Aufnahme");
        page_ << "<!DOCTYPE html>\n<html lang=\"" << words("en", "de") << "\">\n"
              << kHead << "<title>" << title << "</title>\n<h1>" << title << "</h1>\n<p class=\"end\">" << ending()
              << "</p>\n<div class=\"top\">\n";
        if (!photograph.empty())
            page_ << "<img alt=\"" << words("The photograph", "Das Foto") << "\" src=\"data:image/jpeg;base64,"
                  << base64::encode(photograph) << "\">\n";
        page_ << "<section>\n<h2>" << words("Device and record", "Gerät und Datensatz") << "</h2>\n";
        writeMembers();
        page_ << "</section>\n</div>\n<h2>" << words("What happened", "Was geschah") << "</h2>\n";
        writeEvents();
        page_ << "<h2>" << words("Parameters", "Parameter") << "</h2>\n";
        writeParameters();
        page_ << "</html>\n";
        return page_.str();
    }

private:
    [[nodiscard]] const char* words(const char* english, const char* german) const {
        return language_ == Language::German ? german : english;
    }

    [[nodiscard]] std::string ending() const {
        const auto code = record_.value("SelvioResultCode", json());
        if (code == "SuccessVideo") return words("Picture selected automatically", "Foto selbsttätig gewählt");
        if (code == "SuccessStillCamera") return words("Picture taken by hand", "Foto von Hand aufgenommen");
        if (code == "Cancelled") return words("Cancelled, without a picture", "Abgebrochen, ohne Foto");
        if (code.is_null()) return words("The record does not say how it ended", "Der Datensatz nennt kein Ende");
        return escaped(code);
    }

    void writeMembers() {
        page_ << "<table>\n";
        for (const auto& [key, value] : record_.items()) {
            if (key == "Parameters" || key == "UXP") continue;
            page_ << "<tr><th scope=\"row\">" << escaped(key) << "</th><td>" << escaped(value) << "</td></tr>\n";
        }
        page_ << "</table>\n";
    }

    void writeEvents() {
        const auto events = momentsOf(eventsOf(record_));
        double end = 0.001;
        for (const auto& event : events) end = std::max(end, event.seconds.value_or(0.0));
        page_ << "<table>\n<tr><th class=\"number\">" << words("At (s)", "Nach (s)") << "</th><th class=\"number\">"
              << words("For (s)", "Dauer (s)") << "</th><th>" << words("Event", "Ereignis")
              << "</th><th></th><th class=\"bar\"></th></tr>\n";
        for (std::size_t i = 0; i < events.size(); ++i) {
            const auto& [codes, firstCode, at] = events[i];
            const double next = i + 1 < events.size() ? events[i + 1].seconds.value_or(NAN) : NAN;
            const bool lasted = at && next >= *at;
            page_ << "<tr><td class=\"number\">" << (at ? number(*at) : "–") << "</td><td class=\"number\">"
                  << (lasted ? number(next - *at) : "–") << "</td><td>" << textOfEvent(firstCode, language_)
                  << "</td><td>" << escaped(codes) << "</td><td class=\"bar\">";
            if (at && *at >= 0.0) {
                const double width = lasted ? (next - *at) / end * 100.0 : 0.0;
                page_ << "<svg viewBox=\"0 0 100 1\" preserveAspectRatio=\"none\" aria-hidden=\"true\"><rect x=\""
                      << number(std::min(*at / end * 100.0, 99.5)) << "\" width=\"" << number(std::max(width, 0.5))
                      << "\" height=\"1\"/></svg>";
            }
            page_ << "</td></tr>\n";
        }
        page_ << "</table>\n";
    }

    void writeParameters() {
        const auto defaults = SelvioFacialCaptureParameters().toDictionary();
        page_ << "<table>\n<tr><th>" << words("Name", "Name") << "</th><th>" << words("Value", "Wert") << "</th><th>"
              << words("Default", "Vorgabe") << "</th><th></th></tr>\n";
        const json parameters = parametersOf(record_);
        for (const auto& [key, value] : parameters.items()) {
            const auto usual = defaults.find(key);
            const bool changed = usual != defaults.end() && value != usual->second;
            page_ << (changed ? "<tr class=\"changed\">" : "<tr>") << "<th scope=\"row\">" << escaped(key)
                  << "</th><td>" << escaped(value) << "</td><td>" << (usual == defaults.end() ? "–" : usual->second)
                  << "</td><td>" << (changed ? words("changed", "geändert") : "") << "</td></tr>\n";
        }
        page_ << "</table>\n";
    }

    const json record_;
    const Language language_;
    std::ostringstream page_;
};

}  // namespace

std::optional<std::string> reportPage(const std::string& record, const Bytes& photograph, Language language) {
    auto parsed = parseRecord(record);
    if (!parsed) return std::nullopt;
    return Page(std::move(*parsed), language).write(photograph);
}

ExitCode perform(const ReportOptions& options) {
    const auto found = findRecord(options.source);
    if (!found) return refuse(ExitCode::UnreadableInput, found.error());
    const auto page = reportPage(found.value().text, found.value().photograph, languageOfLocale());
    if (!page) return refuse(ExitCode::UnreadableInput, {options.source + ": its data record is damaged"});
    if (options.out == "-") {
        std::cout << *page;
        return ExitCode::Success;
    }
    const auto out = options.out.empty() ? std::filesystem::path(options.source).replace_extension(".html")
                                         : std::filesystem::path(options.out);
    std::error_code notThere;
    if (std::filesystem::equivalent(out, options.source, notThere))
        return refuse(ExitCode::Usage, {out.string() + ": the report would replace what it is made from"});
    if (const auto error = writeFileAtomically(out, *page)) return refuse(ExitCode::NotWritten, *error);
    std::cout << out.string() << '\n';
    return ExitCode::Success;
}

}  // namespace selvio::app
