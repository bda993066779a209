// A model of the camera, written from what it promises, beside the camera itself: the same random scenarios drive both,
// and every call, message, event, file and flag must agree.
#include <random>

#include "CameraRig.h"

namespace selvio {
namespace {

using Status = AssetWriterStatus;
using Path = std::filesystem::path;
const std::string kPresets[] = {"640x480", "1920x1080", "1280x720", "High"};
const std::string kQueues[] = {kSession, kOutput, kCodes, kMain};

struct Model {
    struct Writer {
        Status status = Status::Unknown;
        bool asked = false;  ///< to finish
        Path path = {};      ///< of the file that is being finished
    };

    CameraRig rig;  // what goes wrong is set in its fakes and read there
    FakeCaptureScript& script = *rig.capture;
    FakeFileManager& disk = *rig.files;

    char delegate = '-';  ///< 'd': one that implements everything; 's': one that implements nothing
    bool rgb = true, codes = false, sound = false, recordVideo = false, shouldRecord = true;
    int position = 1, format = 0, orientation = 0, quality = 10;
    std::optional<std::string> preset;
    Size desired;
    std::string recordedSize = "640 480";  ///< as recommended, unless there is a screen

    bool alive = true, closed = false, configured = false, torch = false, running = false;
    bool hasSession = true, hasDevice = false, cameraJoined = false, microphoneJoined = false, soundOpened = true;
    bool videoInput = false, audioInput = false, video = false, audio = false, metadata = false;
    bool writerVideo = false, writerAudio = false;
    int resolution = 0;
    std::size_t covers = 0;
    Strings outputs;
    std::vector<std::shared_ptr<Writer>> made;
    std::shared_ptr<Writer> writer;
    Path path;
    FakeFileManager::Files files;

    std::map<std::string, ManualQueue> queues;
    CallLog calls;  ///< in their order, with the messages and what the delegate is told

    void say(const auto&... words) { calls.add(words...); }
    bool failed(const char* message) { return say(message), false; }
    void tell(const std::string& event) {
        if (delegate == 'd' && !closed) say("told", event);
    }
    /// Submits work that is not done for a camera that has gone.
    void on(const std::string& queue, std::function<void()> work) {
        queues[queue].async([this, work = std::move(work)] {
            if (alive) work();
        });
    }

    // ---- configuration

    void configure() {
        if (hasSession) say("begin");
        const bool built = build();
        if (hasSession) say("commit");
        if (!built) return;
        say("camera lock");
        if (script.focusSupported) say("camera focus 0.5 0.5"), say("camera focus mode 2");
        say("camera unlock");
        if (!script.allows("lock") || !soundOpened)
            return say("Failed to set continuous autofocus and point of interest");
        orientOutputs();
        configured = configured || delegate == 'd';
        tell("configured");
    }
    bool build() {
        soundOpened = true;
        say("discover 1 type: BuiltInWideAngleCamera video", position);
        hasDevice = script.allows("camera device");
        if (!hasDevice) return failed("Could not discover a capture device");
        videoInput = script.allows("camera input");
        if (!videoInput) return failed("Could not create video device input: not allowed");
        if (!hasSession || cameraJoined || !script.allows("camera"))
            return failed("Could not add video device input to the session");
        say("add camera");
        cameraJoined = true;
        on(kMain, [this] { say("preview orientation", orientation == 0 ? 1 : orientation); });
        chooseResolution();
        if (sound) {
            audioInput = soundOpened = script.allows("microphone device") && script.allows("microphone input");
            microphoneJoined = audioInput && script.allows("microphone");
            say(microphoneJoined ? "add microphone" : "Could not add audio device input to the session");
        }
        say("video format", rgb ? format : 0x34323076);
        say("video discards late");
        video = addOutput("video", kOutput, "Can't add videoDataOutput");
        if (sound && audioInput) audio = addOutput("audio", kOutput, "Can't add audioDataOutput");
        if (codes) metadata = addOutput("metadata", kCodes, "Can't add metaDataOutput");
        if (metadata) say("metadata 1 type: PDF417");
        return true;
    }
    void chooseResolution() {
        if (preset) {
            for (const std::string& wanted : {*preset, kPresets[1], kPresets[2]}) {
                say("can set", wanted);
                if (script.allows(wanted)) return say("set", wanted);
            }
            return say("set High");
        }
        Size chosen;
        for (const CaptureDeviceFormat& one : script.formats) {
            const auto& [type, width, height] = one.formatDescription;
            if (type != static_cast<PixelFormat>(format) || width <= chosen.width || chosen == desired) continue;
            chosen = {static_cast<double>(width), static_cast<double>(height)};
        }
        if (desired == Size{} || chosen == Size{}) return;
        say("camera lock"), say("camera format", chosen.width, chosen.height), say("camera unlock");
    }
    bool addOutput(const std::string& name, const std::string& queue, const char* refusal) {
        say(name, "receiver on", queue);
        if (!script.allows(name)) return failed(refusal);
        say("add", name);
        outputs.push_back(name);
        return true;
    }
    void orientOutputs() {
        const bool kept = orientation == 1 || orientation == 2 || orientation == 4;
        for (const std::string& name : outputs) say(name, "orientation", kept ? orientation : 3);
    }

    // ---- control

    void setDelegate(char kind) {
        delegate = kind;
        if (kind != '-') on(kSession, [this] { configure(); });
    }
    void start() {
        on(kSession, [this] {
            startRecording();
            if (hasSession && !std::exchange(running, true)) say("run");
            running = hasSession;
        });
    }
    void stop() {
        turnTorchOff();
        if (!running) return;
        const bool now = isWriting();
        const auto end = [this, now] {
            if (now || isWriting()) finish();
        };
        if (recordVideo) queues[kOutput].async(end);
        say("stop");
        running = false;
    }
    void shutdown() {
        closed = true;
        if (!hasSession) return;
        say("begin");
        for (const auto& [present, name] : {std::pair(&video, "video"), {&audio, "audio"}, {&metadata, "metadata"}})
            if (std::exchange(*present, false)) say(name, "receiver on nothing"), say("remove", name);
        say("commit");
        outputs.clear();
        hasSession = running = cameraJoined = microphoneJoined = false;
    }
    bool hasTorch() const { return hasDevice && script.torch; }
    bool turnTorchOn() {
        const auto turn = [this] {
            if (alive && hasDevice) switchTorch(true);
        };
        if (hasTorch()) queues[kMain].asyncAfter(std::chrono::milliseconds(100), turn);
        return hasTorch();
    }
    bool turnTorchOff() {
        if (hasTorch()) switchTorch(false);
        return hasTorch();
    }
    void switchTorch(bool on) {
        say("camera lock"), say("camera torch", on ? "on" : "off"), say("camera unlock");
        torch = on;
    }
    void updatePreview(int to) {
        if (to >= 1 && to <= 4) {
            say("preview orientation", to);
            if (hasSession) orientOutputs();
        }
        if (torch) turnTorchOn();
    }
    void notice(ApplicationNotification notification) {
        if (closed) return;
        if (notification == ApplicationNotification::WillResignActive) ++covers;
        if (notification == ApplicationNotification::DidBecomeActive && covers > 0) --covers;
        if (notification == ApplicationNotification::WillTerminate) cleanUp();
    }

    // ---- samples

    void deliver(bool isVideo, int width, bool drop, bool ready) {
        on(kOutput, [=, this] {
            if (!(isVideo ? video : audio)) return;
            if (isVideo && !drop && resolution == 0) resolution = width;
            if (!drop && isWriting() && (isVideo ? writerVideo : writerAudio) && script.allows("samples") &&
                shouldRecord && ready)
                say(isVideo ? "video track sample" : "audio track sample");
            if (isVideo) tell(drop ? "drop" : "frame");
        });
    }
    void decode(const std::vector<MetadataObject>& batch) {
        on(kCodes, [=, this] {
            for (const MetadataObject& object : batch)
                if (object.type == "PDF417" && object.stringValue) return tell("barcode " + *object.stringValue);
        });
    }

    // ---- recording

    void startRecording() {
        on(kOutput, [this] { record(); });
    }
    void record() {
        cleanUp();
        if (!recordVideo) return;
        shouldRecord = true;
        path = "/documents" / rig.camera->url()->filename();
        say("make MPEG4", path.string());
        writer = nullptr;
        if (script.allows("writer")) writer = made.emplace_back(std::make_shared<Writer>());
        writerVideo = video;
        const bool efficient = script.codec == "HEVC" && rig.platform.serviceLevel >= 11;
        const int low = efficient ? 500'000 : 1'500'000, range = efficient ? 5'500'000 : 11'500'000;
        const auto rate = std::to_string(low + std::int64_t{range} * (quality - 10) / 90);
        const auto settings = script.codec + " " + recordedSize + " AverageBitRate" + rate + " Profile7 ";
        if (!addTrack(video, "video track", settings)) writer = nullptr, say("Can't add writerInputVideo");
        writerAudio = sound && audio;
        if (!addTrack(writerAudio, "audio track", "44100 128000") && writerAudio) say("Can't add writerInputAudio");
        if (!writer) return;
        say("start"), say("from", hasSession ? 42 : 0, "s");
        writer->status = Status::Writing;
    }
    bool addTrack(bool wanted, const std::string& name, const std::string& settings) {
        if (!wanted) return false;
        say(name, settings), say(name, "real time");
        if (!writer || !script.allows(name)) return false;
        say("add", name);
        return true;
    }
    bool isWriting() const { return writer && writer->status == Status::Writing; }
    void endTracks() {
        if (writerVideo) say("video track finished");
        if (writerAudio) say("audio track finished");
    }
    void finish() {
        shouldRecord = false;
        if (!writer || std::exchange(writer->asked, true)) return;
        if (isWriting()) endTracks();
        say("finish");
        writer->path = path;
    }
    void discard() {
        shouldRecord = false;
        endTracks();
        if (writer) say("cancel"), writer->status = Status::Cancelled;
        writer = nullptr;
        writerVideo = writerAudio = false;
        removeFile(path);
    }
    void finished(Writer& one, Status status) {
        one.status = status;
        const Path file = std::exchange(one.path, {});
        const char* const words[] = {" other", " other", "", "Failed", "Cancelled"};
        if (file.empty()) return;
        if (status != Status::Completed)
            return say(std::string("*** AVAssetWriterStatus") + words[static_cast<int>(status)]);
        if (delegate != 'd') return;
        if (!files.contains(file))
            return say("Couldn't read item at path:", file.filename().string() + "\nno such file");
        say("told recording of", files[file].size());
        removeFile(file);
    }
    void removeFile(const Path& file) {
        if (!disk.refused.contains(file.filename())) files.erase(file);
    }
    void cleanUp() {
        if (disk.refused.contains("listing"))
            return say("Couldn't get contents of Documents directory:\nno such directory");
        std::erase_if(files, [this](const auto& file) {
            const std::string name = file.first.filename();
            const bool isLeft = name.starts_with("selvio_") && name.ends_with(".mp4");
            const bool stays = disk.refused.contains(name);
            if (isLeft && stays) say("Couldn't delete item at path:", name + "\nread-only");
            return isLeft && !stays;
        });
    }
};

/// One scenario: the camera and its model, and a generator of what happens.
class Scenario : Model {
public:
    explicit Scenario(unsigned seed) : random_(seed) {
        script.formats = {{{kPixelFormat420v, 640, 480}, 30.0},
                          {{kPixelFormat32BGRA, 960, 540}, 30.0},
                          {{kPixelFormat420v, 1280, 720}, 30.0},
                          {{kPixelFormat420v, 1280, 960}, 30.0},
                          {{kPixelFormat420v, 1920, 1080}, 30.0}};
        std::shuffle(script.formats.begin(), script.formats.end(), random_);
        script.torch = chance(2);
        script.focusSupported = !chance(4);
        script.codec = chance(2) ? "HEVC" : "H264";
        rig.platform.serviceLevel = 10 + any(3);
        const int held = any(5);
        rig.platform.screen =
            held == 0 ? nullptr : std::make_shared<FakeScreen>(Size{300, 600}, static_cast<InterfaceOrientation>(held));
        if (held > 0) recordedSize = held <= 2 ? "720 1280" : "1280 720";
        rig.make();
        for (int i = any(16); i > 0; --i) act(true);
    }

    /// Stops at the first difference, which is then reported.
    void run(int steps) {
        for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            act(false);
            if (chance(2)) runQueue(kQueues[any(4)]);
            compare();
        }
        alive = false;
        const std::weak_ptr<Camera> camera = std::exchange(rig.camera, nullptr);
        EXPECT_TRUE(camera.expired()) << "something that waits on a queue, which the host need not run, keeps it";
        runQueues(), runQueues();
        compare();
    }

private:
    int any(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
    bool chance(int outOf) { return any(outOf) == 0; }
    std::set<std::string> some(std::initializer_list<const char*> names) {
        std::set<std::string> chosen(names.begin(), names.end());
        std::erase_if(chosen, [this](const auto&) { return !chance(7); });
        return chosen;
    }
    void runQueue(const std::string& label) {
        if (rig.queues.contains(label)) rig.queues[label]->runAll();
        queues[label].runAll();
    }
    void runQueues() {
        for (const std::string& label : kQueues) runQueue(label);
    }

    /// Does something to both.
    void act(bool settingsOnly) {
        Camera& camera = *rig.camera;
        const int to = any(7);
        const Size sizes[] = {{}, {1280, 720}, {1280, 960}};
        const std::function<void()> actions[] = {
            [&] { camera.setAnalyzeRGBVideo(rgb = chance(2)); },
            [&] { camera.setDetectPDF417(codes = chance(2)); },
            [&] { camera.parameters()->setRecordAudio(sound = chance(2)); },
            [&] { camera.parameters()->setRecordVideo(recordVideo = !chance(4)); },
            [&] { camera.setCameraOrientation(static_cast<VideoOrientation>(orientation = any(6))); },
            [&] { camera.parameters()->setVideoQuality(quality = 10 + any(91)); },
            [&] { camera.setDesiredResolution(desired = sizes[any(3)]); },
            [&] { setPreset(); },
            // Those were the settings.
            [&] { setDelegate(); },
            [&] { camera.start(), start(); },
            [&] { camera.stop(), stop(); },
            [&] {
                if (chance(5)) camera.shutdown(), shutdown();
            },
            [&] { EXPECT_EQ(camera.turnTorchOn(), turnTorchOn()); },
            [&] { EXPECT_EQ(camera.turnTorchOff(), turnTorchOff()); },
            [&] { camera.updatePreviewLayer(static_cast<VideoOrientation>(to)), updatePreview(to); },
            [&] { camera.startRecording(), startRecording(); },
            [&] { camera.stopRecording(), queues[kOutput].async([this] { finish(); }); },
            [&] { camera.discardRecording(), queues[kOutput].async([this] { discard(); }); },
            [&] { camera.setShouldRecord(shouldRecord = !chance(3)); },
            [&] { camera.deleteCurrentRecording(), removeFile(path); },
            [&] { changeFaults(); },
            [&] { changeFiles(); },
            [&] { notify(static_cast<ApplicationNotification>(any(3))); },
            [&] { finishAWriter(); },
            [&] { deliver(), deliver(), deliver(); },
            [&] { passTime(); },
            [&] { runQueues(); },
        };
        actions[any(settingsOnly ? 8 : static_cast<int>(std::size(actions)))]();
    }
    void setPreset() {
        preset = chance(2) ? std::nullopt : std::optional(kPresets[any(4)]);
        format = static_cast<int>(chance(3) ? kPixelFormat32BGRA : kPixelFormat420v);
        position = any(3);
        position == 1 ? rig.camera->setPreset(preset, format)
                      : rig.camera->setPreset(preset, format, static_cast<CaptureDevicePosition>(position));
    }
    void setDelegate() {
        const char kind = "dddds-"[any(6)];
        rig.camera->setDelegate(kind == 'd' ? rig.delegate : kind == 's' ? silent_ : nullptr);
        Model::setDelegate(kind);
    }
    void changeFaults() {
        script.refused = some({"camera device", "microphone device", "camera input", "microphone input", "lock",
                               "camera", "microphone", "video", "audio", "metadata", "640x480", "1920x1080", "1280x720",
                               "writer", "video track", "audio track", "samples"});
    }
    void changeFiles() {
        const char* const names[] = {"selvio_a.mp4", "selvio_b.MP4", "x.mp4"};
        const Path name = !path.empty() && chance(2) ? path : Path("/documents") / names[any(3)];
        disk.files[name] = files[name] = std::vector<std::uint8_t>(static_cast<std::size_t>(any(9)));
        disk.refused = some({"listing", "selvio_a.mp4"});
        if (chance(3)) disk.refused.insert(name.filename());
    }
    void notify(ApplicationNotification notification) {
        rig.notifications->post(notification);
        notice(notification);
    }
    void finishAWriter() {
        const auto which = static_cast<std::size_t>(any(9));
        const Status statuses[] = {Status::Completed, Status::Completed, Status::Failed, Status::Cancelled,
                                   Status::Unknown};
        const auto real = which < made.size() ? script.writers[which].lock() : nullptr;
        if (!real) return;
        const Status status = statuses[any(5)];
        real->finish(status);
        finished(*made[which], status);
    }
    void deliver() {
        const int width = 2 + 2 * any(3);
        const bool ready = !chance(5), drop = chance(4);
        const auto from = [&](const auto& output, bool isVideo) {
            using To = CaptureOutputDelegate;
            output->deliver(frame(width, ready),
                            drop ? &To::captureOutputDidDropSampleBuffer : &To::captureOutputDidOutputSampleBuffer);
            if (isVideo ? video : audio) Model::deliver(isVideo, width, drop, ready);
        };
        if (rig.system->video && chance(2)) return from(rig.system->video, true);
        if (rig.system->audio && chance(2)) return from(rig.system->audio, false);
        if (!metadata) return;
        std::vector<MetadataObject> batch;
        for (int i = any(4); i > 0; --i) {
            batch.push_back({chance(3) ? "QR" : "PDF417", std::to_string(i), {}});
            if (chance(3)) batch.back().stringValue.reset();
        }
        rig.system->metadata->deliver(batch, &CaptureOutputDelegate::captureOutputDidOutputMetadataObjects);
        decode(batch);
    }
    void passTime() {
        rig.clock->advance(std::chrono::milliseconds(123));
        for (ManualQueue* main : {rig.queues[kMain].get(), &queues[kMain]})
            main->advance(std::chrono::milliseconds(100));
    }

    void compare() {
        Strings is = rig.log.take();
        std::erase(is, "remove camera"), std::erase(is, "remove microphone");  // the inputs are compared below
        EXPECT_EQ(is, calls.take());
        EXPECT_EQ(disk.files, files);
        if (!rig.camera) return;
        const Camera& c = *rig.camera;
        EXPECT_EQ((std::array{c.isConfigured(), c.isTorchON(), c.isTorchOn(), c.hasTorch(), c.shouldRecord(),
                              !!c.session(), !!c.videoDevice(), !!c.videoInput(), !!c.audioInput(),
                              !!c.videoDataOutput(), !!c.audioDataOutput(), !!c.metaDataOutput(), !!c.assetWriter(),
                              !!c.writerVideoInput(), !!c.writerAudioInput()}),
                  (std::array{configured, torch, torch, hasTorch(), shouldRecord, hasSession, hasDevice, videoInput,
                              audioInput, video, audio, metadata, !!writer, writerVideo, writerAudio}));
        const Rect screen = rig.platform.screen ? Rect{0.0, 0.0, 300.0, 600.0} : rig.view->frame();
        for (const BlurView& cover : rig.view->subviews())
            EXPECT_TRUE(cover.style == 1 && cover.tag == 77 && cover.frame == screen);
        const auto& session = *rig.system->session;
        EXPECT_EQ(std::tuple(c.resolution().width, c.videoRecordingUrl().value_or(""), rig.view->subviews().size(),
                             session.inputs().size(), session.outputs().size()),
                  std::tuple(resolution, path, covers, std::size_t{cameraJoined} + microphoneJoined, outputs.size()));
    }

    std::mt19937 random_;
    const std::shared_ptr<Delegate> silent_ = std::make_shared<Delegate>();
};

TEST(CameraModel, randomScenariosAgree) {
    for (unsigned seed = 1; seed <= 400 && !HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Scenario(seed).run(80);
    }
}

}  // namespace
}  // namespace selvio
