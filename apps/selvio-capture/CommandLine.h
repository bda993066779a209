// What the person asked for.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace selvio::app {

/// How the program ends.
enum class ExitCode : int {
    Success = 0,          ///< captured; judged; printed
    Other = 1,            ///< anything that has no code of its own
    Usage = 2,            ///< wrong usage
    NotCaptured = 3,      ///< timed out or cancelled; the record is written
    NoCamera = 4,         ///< no camera, no access to it, or it stopped delivering
    UnreadableInput = 5,  ///< a model or input file is missing or unreadable
    NotWritten = 6,       ///< the result could not be written
};

struct SourceOption {
    enum class Kind { Automatic, Simulated, Camera, Video };
    Kind kind = Kind::Automatic;
    std::string name;  ///< of the camera (empty: the first one), or the path of the video
};

struct RunOptions {
    SourceOption source;
    std::filesystem::path photo;   ///< empty: the sample
    std::filesystem::path script;  ///< empty: the sample's demonstration
    std::filesystem::path out = "capture";
    bool json = false;
    bool report = false;          ///< a page about the capture beside its results
    std::optional<bool> preview;  ///< nothing: where there is a display and standard output is a terminal
    bool accept = false;          ///< keep the photograph without asking the person, who sees it in the preview
    bool attended = false;        ///< the preview is open; set by the program
    bool hevc = false;            ///< record H.265 where an encoder for it is installed
    std::shared_ptr<SelvioFacialCaptureParameters> parameters = std::make_shared<SelvioFacialCaptureParameters>();
};

struct CheckOptions {
    std::vector<std::string> images;  ///< files and folders, or "-" alone: the lines of standard input
    bool json = false;
    bool csv = false;
    unsigned jobs = 0;  ///< pictures judged at once; 0: as many as there are cores
    std::shared_ptr<SelvioFacialCaptureParameters> parameters = std::make_shared<SelvioFacialCaptureParameters>();
};

struct ShowOptions {
    std::string photograph;  ///< or a record of its own
    bool json = false;
};

struct ReportOptions {
    std::string source;  ///< a photograph, or a record of its own
    std::string out;     ///< empty: beside the source, ".html" for its extension; "-": standard output
};

struct DevicesOptions {
    bool json = false;
};

using Command = std::variant<RunOptions, CheckOptions, ShowOptions, ReportOptions, DevicesOptions>;

/// The command that the arguments (without the program's name) ask for. An exit code instead when there is nothing left
/// to do: help or the version was asked for and printed on standard output, or the arguments are wrong, which standard
/// error says.
[[nodiscard]] std::variant<Command, ExitCode> parseCommandLine(std::vector<std::string> arguments);

}  // namespace selvio::app
