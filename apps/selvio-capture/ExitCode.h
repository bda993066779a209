// How the program ends.
#pragma once

namespace selvio::app {

enum class ExitCode : int {
    Success = 0,          ///< captured; judged; printed
    Other = 1,            ///< anything that has no code of its own
    Usage = 2,            ///< wrong usage
    NotCaptured = 3,      ///< timed out or cancelled; the record is written
    NoCamera = 4,         ///< no camera, no access to it, or it stopped delivering
    UnreadableInput = 5,  ///< a model or input file is missing or unreadable
    NotWritten = 6,       ///< the result could not be written
};

}  // namespace selvio::app
