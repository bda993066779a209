#include "camera/VideoRecorder.h"

#include <SelvioFacialCapture/base/Log.h>

#include "camera/rules/RecordingRules.h"

namespace selvio {
namespace {

void removeFile(FileManager* files, const std::filesystem::path& path) {
    if (files && files->fileExists(path))
        (void)files->removeItem(path);  // what remains is removed by the next clean-up
}

void deliver(FileManager* files, const std::filesystem::path& path, const DelegateSlot& delegateSlot) {
    const auto delegate = delegateSlot.get();
    if (!delegate || !delegate->didFinishRecordingVideo || !files) return;
    auto data = files->readFile(path);
    if (!data) {
        log("Couldn't read item at path: " + path.filename().string() + "\n" + data.error().localizedDescription);
        return;
    }
    removeFile(files, path);
    delegate->didFinishRecordingVideo(std::move(data.value()));
}

void writerDidFinish(AssetWriterStatus status, FileManager* files, const std::optional<std::filesystem::path>& path,
                     const DelegateSlot& delegateSlot) {
    switch (status) {
        case AssetWriterStatus::Completed:
            if (path) deliver(files, *path, delegateSlot);
            break;
        case AssetWriterStatus::Failed:
            log("*** AVAssetWriterStatusFailed");
            break;
        case AssetWriterStatus::Cancelled:
            log("*** AVAssetWriterStatusCancelled");
            break;
        default:
            log("*** AVAssetWriterStatus other");
            break;
    }
}

}  // namespace

VideoRecorder::VideoRecorder(const Platform& platform, std::shared_ptr<CameraState> state,
                             const std::shared_ptr<Queue>& queue)
    : clock_(platform.clock),
      serviceLevel_(platform.serviceLevel),
      screen_(platform.screen),
      writers_(platform.assetWriters),
      files_(platform.fileManager),
      state_(std::move(state)),
      queue_(queue) {}

void VideoRecorder::start() {
    assert(isOnOrEnding(queue_));
    cleanupBrokenVideos();
    if (!state_->recordVideo()) return;
    state_->set(&CameraValues::shouldRecord, true);
    configureAssetWriter();
    const auto writer = state_->get(&CameraValues::assetWriter);
    if (!writer || writer->status() == AssetWriterStatus::Writing) return;
    (void)writer->startWriting();  // a failure shows in the status: nothing is appended, and the finish reports it
    const auto session = state_->session();
    writer->startSessionAtSourceTime(session ? session->masterClockTime() : std::chrono::nanoseconds(0));
}

void VideoRecorder::configureAssetWriter() const {
    const auto path = url();
    state_->set(&CameraValues::videoRecordingUrl, path);

    std::shared_ptr<AssetWriter> writer;
    if (writers_ && path) {
        if (auto made = writers_->makeAssetWriter(*path, kFileTypeMPEG4)) writer = made.value();
    }
    const auto add = [&writer](const std::shared_ptr<AssetWriterInput>& input) {
        if (!writer || !input || !writer->canAddInput(*input)) return false;
        writer->addInput(input);
        return true;
    };

    const auto videoInput = makeVideoInput();
    state_->set(&CameraValues::writerVideoInput, videoInput);
    if (!add(videoInput)) {
        log("Can't add writerInputVideo");
        writer = nullptr;
    }

    const auto audioOutput = state_->recordAudio() ? state_->get(&CameraValues::audioDataOutput) : nullptr;
    const auto audioInput = audioOutput ? makeAudioInput(*audioOutput) : nullptr;
    // Null without sound, lest samples be appended to the recording before.
    state_->set(&CameraValues::writerAudioInput, audioInput);
    if (audioOutput && !add(audioInput)) log("Can't add writerInputAudio");

    state_->set(&CameraValues::assetWriter, writer);
}

std::shared_ptr<AssetWriterInput> VideoRecorder::makeVideoInput() const {
    const auto output = state_->get(&CameraValues::videoDataOutput);
    const auto parameters = state_->get(&CameraValues::parameters);
    if (!writers_ || !output || !parameters) return nullptr;
    // The orientation may be read on any thread, so the size is settled before the track is made.
    const auto orientation = screen_ ? std::optional(screen_->statusBarOrientation()) : std::nullopt;
    auto input = writers_->makeVideoInput(rules::recordingSettings(
        output->recommendedVideoSettings(kFileTypeMPEG4), orientation, parameters->videoQuality(), serviceLevel_));
    if (input) input->setExpectsMediaDataInRealTime(true);
    return input;
}

std::shared_ptr<AssetWriterInput> VideoRecorder::makeAudioInput(AudioDataOutput& output) const {
    auto input = writers_ ? writers_->makeAudioInput(output.recommendedAudioSettings(kFileTypeMPEG4)) : nullptr;
    if (input) input->setExpectsMediaDataInRealTime(true);
    return input;
}

void VideoRecorder::appendVideoSample(const std::shared_ptr<SampleBuffer>& sampleBuffer) const {
    append(&CameraValues::writerVideoInput, sampleBuffer);
}

void VideoRecorder::appendAudioSample(const std::shared_ptr<SampleBuffer>& sampleBuffer) const {
    append(&CameraValues::writerAudioInput, sampleBuffer);
}

void VideoRecorder::append(std::shared_ptr<AssetWriterInput> CameraValues::*member,
                           const std::shared_ptr<SampleBuffer>& sampleBuffer) const {
    assert(isOnOrEnding(queue_));
    const auto writer = state_->get(&CameraValues::assetWriter);
    if (!writer || writer->status() != AssetWriterStatus::Writing) return;
    const auto input = state_->get(member);
    if (!input || !input->isReadyForMoreMediaData() || !state_->get(&CameraValues::shouldRecord)) return;
    if (sampleBuffer && sampleBuffer->dataIsReady()) (void)input->appendSampleBuffer(sampleBuffer);
}

void VideoRecorder::stop() {
    assert(isOnOrEnding(queue_));
    state_->set(&CameraValues::shouldRecord, false);
    const auto writer = state_->get(&CameraValues::assetWriter);
    if (!writer || writer == finishing_.lock()) return;
    finishing_ = writer;
    if (writer->status() == AssetWriterStatus::Writing) markInputsAsFinished();
    // The path of this file, because the next recording may have begun when it is finished.
    writer->finishWriting([files = files_, writer, path = state_->get(&CameraValues::videoRecordingUrl),
                           delegateSlot = state_->delegateSlot()] {
        writerDidFinish(writer->status(), files.get(), path, *delegateSlot);
    });
}

void VideoRecorder::stopIfWriting() {
    assert(isOnOrEnding(queue_));
    const auto writer = state_->get(&CameraValues::assetWriter);
    if (writer && writer->status() == AssetWriterStatus::Writing) stop();
}

void VideoRecorder::discard() {
    assert(isOnOrEnding(queue_));
    state_->set(&CameraValues::shouldRecord, false);
    markInputsAsFinished();
    if (const auto writer = state_->get(&CameraValues::assetWriter)) writer->cancelWriting();
    state_->set(&CameraValues::writerVideoInput, nullptr);
    state_->set(&CameraValues::writerAudioInput, nullptr);
    state_->set(&CameraValues::assetWriter, nullptr);
    deleteCurrentRecording();
}

void VideoRecorder::markInputsAsFinished() const {
    for (const auto member : {&CameraValues::writerVideoInput, &CameraValues::writerAudioInput}) {
        if (const auto input = state_->get(member)) input->markAsFinished();
    }
}

void VideoRecorder::deleteCurrentRecording() const {
    if (const auto path = state_->get(&CameraValues::videoRecordingUrl)) removeFile(files_.get(), *path);
}

std::optional<std::filesystem::path> VideoRecorder::url() const {
    const auto directory = files_ ? files_->documentsDirectory() : std::filesystem::path();
    if (!clock_ || directory.empty()) return std::nullopt;  // not to the working directory
    return directory / rules::recordingFileName(clock_->secondsSinceReferenceDate());
}

void VideoRecorder::cleanupBrokenVideos() const {
    if (!files_) return;
    const auto directory = files_->documentsDirectory();
    const auto names = files_->contentsOfDirectory(directory);
    if (!names) {
        log("Couldn't get contents of Documents directory:\n" + names.error().localizedDescription);
        return;
    }
    for (const std::string& name : names.value()) {
        if (!rules::isLeftoverRecording(name)) continue;
        if (const auto error = files_->removeItem(directory / name)) {
            log("Couldn't delete item at path: " + name + "\n" + error->localizedDescription);
        }
    }
}

}  // namespace selvio
