#include "CommandLine.h"

#include "Reference.h"
#include "Texts.h"

#include <SelvioFacialCapture/SelvioFacialCaptureVersion.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

namespace selvio::app {
namespace {

using Parameters = SelvioFacialCaptureParameters;

/// An option that hands a number to a setter.
template <typename Target>
void addNumber(CLI::App& command, const std::string& name, const std::shared_ptr<Target>& target,
               void (Target::*set)(std::int64_t), std::int64_t min, std::int64_t max, const std::string& text) {
    command
        .add_option_function<std::int64_t>(
            name, [target, set](std::int64_t value) { ((*target).*set)(value); }, text)
        ->check(CLI::Range(min, max))
        ->type_name("NUMBER");
}

/// A flag that hands on whether it is set.
template <typename Target>
void addFlag(CLI::App& command, const std::string& name, const std::shared_ptr<Target>& target,
             void (Target::*set)(bool), const std::string& text) {
    command.add_flag_function(
        name, [target, set](std::int64_t count) { ((*target).*set)(count > 0); }, text);
}

/// How strictly a face is judged.
void addRuleOptions(CLI::App& command, const std::shared_ptr<Parameters>& parameters) {
    const auto add = [&](const char* name, void (Parameters::*set)(std::int64_t), int min, int max, const char* text) {
        addNumber(command, name, parameters, set, min, max, text);
    };
    add("--min-fill", &Parameters::setMinFill, 400, 800,
        "smallest accepted face width in thousandths of the screen's, default 550");
    add("--max-fill", &Parameters::setMaxFill, 500, 900, "largest accepted face width, at least 100 more, default 725");
    add("--roll", &Parameters::setRoll, 0, 1000, "strictness of the roll check, default 500, more is stricter");
    add("--pitch", &Parameters::setPitch, 0, 1000, "strictness of the pitch check, default 500");
    add("--yaw", &Parameters::setYaw, 0, 1000, "strictness of the yaw check, default 500");
}

/// The parameters move the other bound along where one alone would come too close to it; that is said aloud.
void checkRules(const CLI::App& command, const Parameters& parameters) {
    const auto* const minFill = command.get_option("--min-fill");
    const auto* const maxFill = command.get_option("--max-fill");
    if (*minFill && *maxFill && maxFill->as<std::int64_t>() - minFill->as<std::int64_t>() < 100)
        throw CLI::ValidationError("--max-fill", "must be at least 100 more than --min-fill");
    const Parameters usual;
    if (!*maxFill && parameters.maxFill() != usual.maxFill())
        complain("--max-fill becomes " + std::to_string(parameters.maxFill()) + " to stay 100 above --min-fill");
    if (!*minFill && parameters.minFill() != usual.minFill())
        complain("--min-fill becomes " + std::to_string(parameters.minFill()) + " to stay 100 below --max-fill");
}

SourceOption parseSource(const std::string& text) {
    using Kind = SourceOption::Kind;
    if (text.empty()) return {};
    if (text == "simulated") return {Kind::Simulated, ""};
    if (text == "camera") return {Kind::Camera, ""};
    for (const auto& [prefix, kind] :
         {std::pair<std::string, Kind>{"camera:", Kind::Camera}, {"video:", Kind::Video}}) {
        if (text.starts_with(prefix) && text.size() > prefix.size()) return {kind, text.substr(prefix.size())};
    }
    throw CLI::ValidationError("--source", "'" + text + "' is none of simulated, camera, camera:NAME, video:PATH");
}

void addRun(CLI::App& run, RunOptions& options) {
    const auto& parameters = options.parameters;
    const auto camera = parameters->cameraParameters();
    camera->setShowRecordingUI(true);
    run.add_option_function<std::string>(
        "--source", [&options](const std::string& text) { options.source = parseSource(text); },
        "simulated, camera, camera:NAME or video:PATH; default: a camera if there is one, else simulated");
    run.add_option("--photo", options.photo,
                   "photograph for the simulated camera, a JPEG or PNG with its face geometry (.json) beside it");
    run.add_option("--script", options.script, "motion script for the simulated camera");
    run.add_option("--out", options.out, "directory for the results")->capture_default_str();
    run.add_flag("--json", options.json, "one JSON object a line for every call of the component");
    run.add_flag("--report", options.report, "a page about the capture, report.html, beside its results");
    run.add_flag_function(
        "--preview,!--no-preview", [&options](std::int64_t count) { options.preview = count > 0; },
        "show the camera and the guidance in a window, or do not; default: where there is a display and standard "
        "output is a terminal. Space takes the picture in manual mode, P pauses, R starts again, Escape cancels");
    run.add_flag("--accept", options.accept, "keep the photograph without asking in the window");
    run.add_option_function<std::string>(
           "--mode",
           [parameters](const std::string& mode) {
               parameters->setMode(mode == "manual" ? SelvioFacialCaptureModeManual : SelvioFacialCaptureModeAuto);
           },
           "auto or manual (Enter takes the picture, in the window Space; without both the first well placed face "
           "does, smiling or not)")
        ->check(CLI::IsMember({"auto", "manual"}))
        ->default_str("auto");
    addNumber(run, "--timeout", parameters, &Parameters::setTimeout, 3, 30,
              "seconds until the capture is given up, default 20");
    addRuleOptions(run, parameters);
    addNumber(run, "--image-quality", parameters, &Parameters::setImageQuality, 5, 100,
              "JPEG quality in percent, default 95");
    addFlag(run, "--highlight-landmarks", parameters, &Parameters::setHighlightLandmarks,
            "draw the landmarks that are found into the window");
    addFlag(run, "--select-on-smile", parameters, &Parameters::setSelectOnSmile, "take the picture around a smile");
    addNumber(run, "--countdown-time", parameters, &Parameters::setCountdownTime, 0, 5,
              "seconds of countdown before the picture, default 2; 0 and 1: none");
    using Camera = SelvioFacialCaptureCameraParameters;
    addFlag(run, "--record-video", camera, &Camera::setRecordVideo, "record the session");
    addFlag(run, "--record-audio", camera, &Camera::setRecordAudio, "with sound; has no effect without --record-video");
    addFlag(run, "--show-recording-ui,!--no-show-recording-ui", camera, &Camera::setShowRecordingUI,
            "mark the guidance while recording (on unless negated)");
    run.add_option_function<std::string>(
           "--video-codec", [&options](const std::string& codec) { options.hevc = codec == "hevc"; },
           "h264, or hevc where an encoder for it is installed")
        ->check(CLI::IsMember({"h264", "hevc"}))
        ->default_str("h264");
    addNumber(run, "--video-quality", camera, &Camera::setVideoQuality, 10, 100,
              "quality of the recording, default 10");
}

void checkRun(const CLI::App& run, RunOptions& options) {
    const bool simulatedOnly = !options.photo.empty() || !options.script.empty();
    if (simulatedOnly && options.source.kind == SourceOption::Kind::Automatic)
        options.source.kind = SourceOption::Kind::Simulated;
    if (simulatedOnly && options.source.kind != SourceOption::Kind::Simulated)
        throw CLI::ValidationError(options.photo.empty() ? "--script" : "--photo", "belongs to --source simulated");
    if (options.out.empty()) throw CLI::ValidationError("--out", "is empty");
    const auto camera = options.parameters->cameraParameters();
    if (camera->recordAudio() && !camera->recordVideo()) {
        complain("--record-audio has no effect without --record-video");
        camera->setRecordAudio(false);  // nor is a microphone opened
    }
    checkRules(run, *options.parameters);
}

void addCheck(CLI::App& check, CheckOptions& options) {
    check
        .add_option("IMAGE", options.images,
                    "JPEG or PNG files, folders with such files in them, or - alone: a path in each line of standard "
                    "input, answered by a line")
        ->required()
        ->type_name("");
    auto* const json = check.add_flag("--json", options.json, "one JSON object a line for every image");
    check.add_flag("--csv", options.csv, "comma-separated values, a line for every image")->excludes(json);
    check.add_option("--jobs", options.jobs, "images judged at once; default: one for every core")
        ->check(CLI::Range(1, 256))
        ->type_name("NUMBER");
}

void checkCheck(const CLI::App& check, CheckOptions& options) {
    const bool fromInput = std::ranges::count(options.images, "-") > 0;
    if (fromInput && options.images.size() > 1)
        throw CLI::ValidationError("IMAGE", "- stands alone; a file of that name is ./-");
    if (fromInput && !options.csv) options.json = true;
    checkRules(check, *options.parameters);
}

/// `run` is what the program does when no command is named.
void insertDefaultCommand(std::vector<std::string>& arguments) {
    static const std::vector<std::string> ofTheProgram = {"-h", "--help", "--help-all", "--version"};
    const bool named = !arguments.empty() && !arguments.front().starts_with("-");
    const bool program = !arguments.empty() && std::ranges::count(ofTheProgram, arguments.front()) > 0;
    if (!named && !program) arguments.insert(arguments.begin(), "run");
}

}  // namespace

std::variant<Command, ExitCode> parseCommandLine(std::vector<std::string> arguments) {
    CLI::App app("Takes one good photograph of a face.", "selvio-capture");
    app.option_defaults()->disable_flag_override();  // a switch takes no value; one that is no number would throw
    app.set_version_flag("--version", "selvio-capture " + SelvioFacialCapture::version());
    app.set_help_all_flag("--help-all", "Print the help of every command");
    app.require_subcommand(1);
    app.footer(
        "Exit codes: 0 done; 2 wrong usage; 3 timed out or cancelled; 4 no camera, no access to it, or it stopped;\n"
        "5 a model or input file is missing or unreadable; 6 the result could not be written; 1 anything else.");

    RunOptions runOptions;
    auto* run = app.add_subcommand("run", "One capture, live (the default)");
    addRun(*run, runOptions);

    CheckOptions checkOptions;
    auto* check = app.add_subcommand("check", "Judge still images by the same rules");
    addCheck(*check, checkOptions);
    addRuleOptions(*check, checkOptions.parameters);

    ShowOptions showOptions;
    auto* show = app.add_subcommand("show", "Print the data record found in a photograph");
    show->add_option("PHOTO", showOptions.photograph, "JPEG file, or a record.json")->required()->type_name("");
    show->add_flag("--json", showOptions.json, "the record as it is");

    ReportOptions reportOptions;
    auto* report = app.add_subcommand("report", "Make a page of a capture's photograph and record");
    report->add_option("PHOTO", reportOptions.source, "JPEG file, or a record.json")->required()->type_name("");
    report->add_option("-o,--out", reportOptions.out, "HTML file; default: beside PHOTO; -: standard output")
        ->type_name("FILE");

    DevicesOptions devicesOptions;
    auto* devices = app.add_subcommand("devices", "List cameras, formats and microphones");
    devices->add_flag("--json", devicesOptions.json, "one JSON object a line for every device");

    std::string referenceKind;
    auto* reference = app.add_subcommand("reference", "This reference in another form")->group("");
    reference->add_option("KIND", referenceKind)->required()->check(CLI::IsMember({"man", "bash", "zsh"}));

    try {
        insertDefaultCommand(arguments);
        std::ranges::reverse(arguments);  // CLI11 takes them from the back
        app.parse(arguments);
        if (run->parsed()) {
            checkRun(*run, runOptions);
            return Command(runOptions);
        }
        if (check->parsed()) {
            checkCheck(*check, checkOptions);
            return Command(checkOptions);
        }
        if (report->parsed()) return Command(reportOptions);
        if (reference->parsed()) {
            std::cout << (referenceKind == "man" ? manualPage(app) : completionScript(app, referenceKind));
            return ExitCode::Success;
        }
        return show->parsed() ? Command(showOptions) : Command(devicesOptions);
    } catch (const CLI::Success& request) {
        return static_cast<ExitCode>(app.exit(request, std::cout, std::cerr));
    } catch (const CLI::Error& error) {
        std::string message = error.what();
        if (const auto end = message.find(" was given a disallowed flag override"); end != std::string::npos)
            message = "--" + message.substr(0, end) + " takes no value";
        complain(message + "\nRun with --help for more information.");
        return ExitCode::Usage;
    }
}

}  // namespace selvio::app
