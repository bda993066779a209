// `run`: finds the source, and lets a session capture from it.
#include "Commands.h"
#include "InputWatcher.h"
#include "KeptQueues.h"
#include "OutputFiles.h"
#include "RunOutput.h"
#include "Session.h"
#include "Source.h"

#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>

#include <unistd.h>
#include <iostream>

namespace selvio::app {

ExitCode perform(const RunOptions& options) {
    blockInterrupts();
    const auto language = languageOfLocale();
    if (const auto error = prepareOutputDirectory(options.out)) {
        complain(error->localizedDescription);
        return ExitCode::NotWritten;
    }
    auto platform = makeLinuxPlatform();
    const auto chosen = useSource(platform, options);
    if (const auto* failure = std::get_if<SourceFailure>(&chosen)) {
        complain(failure->message);
        return failure->code;
    }
    if (const auto error = waitForVisionModels()) {
        complain(error->localizedDescription);
        return ExitCode::UnreadableInput;
    }
    const auto& source = std::get<Source>(chosen);
    const std::string mark = options.parameters->cameraParameters()->showRecordingUI() ? "[REC] " : "";
    const auto output = options.json ? makeJsonOutput(std::cout)
                                     : makePersonOutput(std::cout, ::isatty(STDOUT_FILENO) == 1, language, mark);
    const auto where = text(Phrase::Source, language) + ": " + source.description;
    if (options.json) {
        complain(where);
    } else {
        output->message(where);
    }

    KeptQueues queues;  // outlives the session
    platform.makeSerialQueue = [&queues](const std::string& label) { return queues.make(label); };
    const auto queue = MainQueue::shared();
    const auto session =
        Session::make(std::move(platform), options, source, *output, language, [queue] { queue->quit(); });
    const bool enterSelects =
        options.parameters->mode() == SelvioFacialCaptureModeManual && ::isatty(STDIN_FILENO) == 1;
    if (enterSelects) std::cerr << text(Phrase::PressEnter, language) << std::endl;
    const InputWatcher watcher(
        queue, [&session] { session->interrupted(); },
        enterSelects ? std::function<void()>([&session] { session->entered(); }) : std::function<void()>());
    queue->async([&session] { session->begin(); });
    queue->run();
    return session->exitCode();
}

}  // namespace selvio::app
