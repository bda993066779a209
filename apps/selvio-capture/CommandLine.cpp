#include "CommandLine.h"

#include <SelvioFacialCapture/SelvioFacialCaptureVersion.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

namespace selvio::app {
namespace {

using Number = std::optional<std::int64_t>;

CLI::Option* addNumber(CLI::App& command, const std::string& name, Number& target, std::int64_t min, std::int64_t max,
                       const std::string& text) {
    return command.add_option(name, target, text)->check(CLI::Range(min, max))->type_name("NUMBER");
}

void addRuleOptions(CLI::App& command, RuleOptions& rules) {
    addNumber(command, "--min-fill", rules.minFill, 400, 800,
              "smallest accepted face width in thousandths of the screen's, default 550");
    addNumber(command, "--max-fill", rules.maxFill, 500, 900,
              "largest accepted face width, at least 100 more, default 725");
    addNumber(command, "--roll", rules.roll, 0, 1000, "strictness of the roll check, default 500, more is stricter");
    addNumber(command, "--pitch", rules.pitch, 0, 1000, "strictness of the pitch check, default 500");
    addNumber(command, "--yaw", rules.yaw, 0, 1000, "strictness of the yaw check, default 500");
}

/// Sets the bounds that were given. The parameters move the other bound along where one alone would come too close to
/// it; that is said aloud.
void applyRules(const RuleOptions& rules, SelvioFacialCaptureParameters& parameters) {
    if (rules.minFill && rules.maxFill && *rules.maxFill - *rules.minFill < 100) {
        throw CLI::ValidationError("--max-fill", "must be at least 100 more than --min-fill");
    }
    const auto minFill = parameters.minFill();
    const auto maxFill = parameters.maxFill();
    if (rules.minFill) parameters.setMinFill(*rules.minFill);
    if (rules.maxFill) parameters.setMaxFill(*rules.maxFill);
    if (!rules.maxFill && parameters.maxFill() != maxFill) {
        std::cerr << "selvio-capture: --max-fill becomes " << parameters.maxFill() << " to stay 100 above --min-fill\n";
    }
    if (!rules.minFill && parameters.minFill() != minFill) {
        std::cerr << "selvio-capture: --min-fill becomes " << parameters.minFill() << " to stay 100 below --max-fill\n";
    }
    if (rules.roll) parameters.setRoll(*rules.roll);
    if (rules.pitch) parameters.setPitch(*rules.pitch);
    if (rules.yaw) parameters.setYaw(*rules.yaw);
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

struct RunTexts {
    std::string source;
    std::string mode = "auto";
    std::string videoCodec = "h264";
    RuleOptions rules;
    Number timeout;
    Number imageQuality;
    Number countdownTime;
    Number videoQuality;
    bool selectOnSmile = false;
    bool recordVideo = false;
    bool recordAudio = false;
    bool showRecordingUI = true;
};

void addRun(CLI::App& run, RunOptions& options, RunTexts& texts) {
    run.add_option("--source", texts.source,
                   "simulated, camera, camera:NAME or video:PATH; default: a camera if there is one, else simulated");
    run.add_option("--photo", options.photo,
                   "photograph for the simulated camera, a JPEG or PNG with its face geometry (.json) beside it");
    run.add_option("--script", options.script, "motion script for the simulated camera");
    run.add_option("--out", options.out, "directory for the results")->capture_default_str();
    run.add_flag("--json", options.json, "one JSON object a line for every call of the component");
    run.add_flag("--preview", options.preview, "show the camera in a window where there is a display");
    run.add_option("--mode", texts.mode,
                   "auto or manual (Enter takes the picture; without a terminal the first well placed face does, "
                   "smiling or not)")
        ->check(CLI::IsMember({"auto", "manual"}))
        ->capture_default_str();
    addNumber(run, "--timeout", texts.timeout, 3, 30, "seconds until the capture is given up, default 20");
    addRuleOptions(run, texts.rules);
    addNumber(run, "--image-quality", texts.imageQuality, 5, 100, "JPEG quality in percent, default 95");
    run.add_flag("--select-on-smile", texts.selectOnSmile, "take the picture around a smile");
    addNumber(run, "--countdown-time", texts.countdownTime, 0, 5,
              "seconds of countdown before the picture, default 2; 0 and 1: none");
    run.add_flag("--record-video", texts.recordVideo, "record the session");
    run.add_flag("--record-audio", texts.recordAudio, "with sound; has no effect without --record-video");
    run.add_flag("--show-recording-ui,!--no-show-recording-ui", texts.showRecordingUI,
                 "mark the guidance while recording (on unless negated)");
    run.add_option("--video-codec", texts.videoCodec, "h264, or hevc where an encoder for it is installed")
        ->check(CLI::IsMember({"h264", "hevc"}))
        ->capture_default_str();
    addNumber(run, "--video-quality", texts.videoQuality, 10, 100, "quality of the recording, default 10");
}

void applyRun(RunOptions& options, const RunTexts& texts) {
    options.source = parseSource(texts.source);
    const bool simulatedOnly = !options.photo.empty() || !options.script.empty();
    if (simulatedOnly && options.source.kind == SourceOption::Kind::Automatic)
        options.source.kind = SourceOption::Kind::Simulated;
    if (simulatedOnly && options.source.kind != SourceOption::Kind::Simulated) {
        throw CLI::ValidationError(options.photo.empty() ? "--script" : "--photo", "belongs to --source simulated");
    }
    if (options.out.empty()) throw CLI::ValidationError("--out", "is empty");
    if (texts.recordAudio && !texts.recordVideo)
        std::cerr << "selvio-capture: --record-audio has no effect without --record-video\n";

    options.hevc = texts.videoCodec == "hevc";
    options.parameters = std::make_shared<SelvioFacialCaptureParameters>();
    auto& parameters = *options.parameters;
    parameters.setMode(texts.mode == "manual" ? SelvioFacialCaptureModeManual : SelvioFacialCaptureModeAuto);
    applyRules(texts.rules, parameters);
    if (texts.timeout) parameters.setTimeout(*texts.timeout);
    if (texts.imageQuality) parameters.setImageQuality(*texts.imageQuality);
    if (texts.countdownTime) parameters.setCountdownTime(*texts.countdownTime);
    parameters.setSelectOnSmile(texts.selectOnSmile);
    const auto camera = parameters.cameraParameters();
    camera->setRecordVideo(texts.recordVideo);
    camera->setRecordAudio(texts.recordAudio);
    camera->setShowRecordingUI(texts.showRecordingUI);
    if (texts.videoQuality) camera->setVideoQuality(*texts.videoQuality);
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
    app.set_version_flag("--version", "selvio-capture " + SelvioFacialCapture::version());
    app.set_help_all_flag("--help-all", "Print the help of every command");
    app.require_subcommand(1);
    app.footer(
        "Exit codes: 0 done; 2 wrong usage; 3 timed out or cancelled; 4 no camera, or no access to it;\n"
        "5 a model or input file is missing or unreadable; 6 the result could not be written; 1 anything else.");

    RunOptions runOptions;
    RunTexts runTexts;
    auto* run = app.add_subcommand("run", "One capture, live (the default)");
    addRun(*run, runOptions, runTexts);

    CheckOptions checkOptions;
    RuleOptions checkRules;
    auto* check = app.add_subcommand("check", "Judge still images by the same rules");
    check->add_option("IMAGE", checkOptions.images, "JPEG or PNG files")->required()->type_name("");
    check->add_flag("--json", checkOptions.json, "one JSON object a line for every image");
    addRuleOptions(*check, checkRules);

    ShowOptions showOptions;
    auto* show = app.add_subcommand("show", "Print the data record found in a photograph");
    show->add_option("PHOTO", showOptions.photograph, "JPEG file")->required()->type_name("");

    DevicesOptions devicesOptions;
    auto* devices = app.add_subcommand("devices", "List cameras, formats and microphones");
    devices->add_flag("--json", devicesOptions.json, "one JSON object a line for every device");

    try {
        insertDefaultCommand(arguments);
        std::ranges::reverse(arguments);  // CLI11 takes them from the back
        app.parse(arguments);
        if (run->parsed()) {
            applyRun(runOptions, runTexts);
            return Command(runOptions);
        }
        if (check->parsed()) {
            checkOptions.parameters = std::make_shared<SelvioFacialCaptureParameters>();
            applyRules(checkRules, *checkOptions.parameters);
            return Command(checkOptions);
        }
        return show->parsed() ? Command(showOptions) : Command(devicesOptions);
    } catch (const CLI::Success& request) {
        return static_cast<ExitCode>(app.exit(request, std::cout, std::cerr));
    } catch (const CLI::Error& error) {
        std::cerr << "selvio-capture: " << error.what() << "\nRun with --help for more information.\n";
        return ExitCode::Usage;
    }
}

}  // namespace selvio::app
