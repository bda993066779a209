// A model of the camera, written from what it promises, beside the camera itself: the same random scenarios drive both,
// and every call, message, event, file and flag must agree.
#include <random>

#include "CameraRig.h"

namespace selvio {
namespace {

using Status = AssetWriterStatus;
const std::string kPresets[] = {"640x480", "1920x1080", "1280x720", "High"};

std::string number(auto value) {
    return std::to_string(static_cast<std::int64_t>(value));
}
std::string nameOf(const std::string& file) {
    return file.substr(file.rfind('/') + 1);
}

struct Model {
    struct Writer {
        Status status = Status::Unknown;
        bool asked = false;               ///< to finish
        std::optional<std::string> path;  ///< of the file that is being finished
    };

    explicit Model(CameraRig& rig) : rig(rig) {}

    CameraRig& rig;  // what goes wrong is set in its fakes and read there
    FakeCaptureScript& script = *rig.capture;
    FakeWriterScript& writing = *rig.writing;
    FakeFileManager& files = *rig.files;

    char delegate = '-';  ///< 'd': one that implements everything; 's': one that implements nothing
    bool rgb = true, codes = false, sound = false, recordVideo = false, shouldRecord = true;
    std::int64_t position = 1, format = 0, orientation = 0, quality = 10;
    std::optional<std::string> preset;
    Size desired;
    std::string recordedSize = "640x480";  ///< as recommended, unless there is a screen

    bool alive = true, closed = false, observes = true, configured = false, torch = false, running = false;
    bool hasSession = true, hasDevice = false, cameraJoined = false, microphoneJoined = false, soundOpened = true;
    bool videoInput = false, audioInput = false, video = false, audio = false, metadata = false;
    bool writerVideo = false, writerAudio = false;
    int resolution = 0;
    std::size_t covers = 0;
    std::vector<std::string> outputs;
    std::vector<std::shared_ptr<Writer>> made;
    std::shared_ptr<Writer> writer;
    std::optional<std::string> path;
    std::map<std::string, std::size_t> has;  ///< files and their sizes

    std::map<std::string, ManualQueue> queues;
    Strings calls;  ///< in their order, with the messages and what the delegate is told

    void say(const auto&... these) { (calls.push_back(these), ...); }
    bool failed(const std::string& message) { return calls.push_back(message), false; }
    void tell(const std::string& event) {
        if (delegate == 'd' && !closed) say("told " + event);
    }
    /// Work that is not done for a camera that has gone.
    template <typename Work>
    auto forCamera(Work work) {
        return [=, this] {
            if (alive) work();
        };
    }

    // ---- configuration

    void setDelegate(char kind) {
        delegate = kind;
        if (kind != '-') queues[kSession].async(forCamera([this] { configure(); }));
    }
    void configure() {
        if (hasSession) say("begin");
        const bool built = build();
        if (hasSession) say("commit");
        if (!built) return;
        say("camera lock");
        if (script.focusSupported) say("camera focus centre", "camera focus mode 2");
        say("camera unlock");
        if (script.lockFails || !soundOpened) return say("Failed to set continuous autofocus and point of interest");
        orientOutputs();
        configured = configured || delegate == 'd';
        tell("configured");
    }
    bool build() {
        soundOpened = true;
        say("discover BuiltInWideAngleCamera video " + number(position));
        hasDevice = !script.noCamera;
        if (!hasDevice) return failed("Could not discover a capture device");
        videoInput = !script.failingInputs.contains("camera");
        if (!videoInput) return failed("Could not create video device input: not allowed");
        if (!hasSession || cameraJoined || script.refused.contains("camera"))
            return failed("Could not add video device input to the session");
        say("add camera");
        cameraJoined = true;
        queues[kMain].async(
            forCamera([this] { say("preview orientation " + number(orientation == 0 ? 1 : orientation)); }));
        chooseResolution();
        if (sound) {
            audioInput = soundOpened = !script.noMicrophone && !script.failingInputs.contains("microphone");
            microphoneJoined = audioInput && !script.refused.contains("microphone");
            say(microphoneJoined ? "add microphone" : "Could not add audio device input to the session");
        }
        say("video format " + number(rgb ? format : 0x34323076), "video discards late");
        video = addOutput("video", kOutput, "Can't add videoDataOutput");
        if (sound && audioInput) audio = addOutput("audio", kOutput, "Can't add audioDataOutput");
        if (codes) metadata = addOutput("metadata", kCodes, "Can't add metaDataOutput");
        if (metadata) say("metadata types PDF417");
        return true;
    }
    void chooseResolution() {
        if (preset) {
            for (const std::string& wanted : {*preset, kPresets[1], kPresets[2]}) {
                say("can set " + wanted);
                if (!script.refused.contains(wanted)) return say("set " + wanted);
            }
            return say("set High");
        }
        VideoFormatDescription chosen;
        for (const CaptureDeviceFormat& one : script.formats) {
            const auto& is = one.formatDescription;
            if (is.mediaSubType != format || is.width <= chosen.width) continue;
            chosen = is;
            if (is.width == desired.width && is.height == desired.height) break;
        }
        if (desired == Size{} || chosen.width == 0) return;
        say("camera lock", "camera format " + number(chosen.width) + "x " + number(chosen.height), "camera unlock");
    }
    bool addOutput(const std::string& name, const std::string& queue, const std::string& refusal) {
        say(name + " receiver on " + queue);
        if (script.refused.contains(name)) return failed(refusal);
        say("add " + name);
        outputs.push_back(name);
        return true;
    }
    void orientOutputs() {
        const bool kept = orientation == 1 || orientation == 2 || orientation == 4;
        for (const std::string& name : outputs) say(name + " orientation " + number(kept ? orientation : 3));
    }

    // ---- control

    void start() {
        queues[kSession].async(forCamera([this] {
            startRecording();
            if (hasSession && !running) say("run"), running = true;
        }));
    }
    void stop() {
        if (hasTorch()) switchTorch(false);
        if (!hasSession || !running) return;
        if (recordVideo) {
            queues[kOutput].async([this, now = isWriting()] {
                if (now || isWriting()) finish();
            });
        }
        say("stop");
        running = false;
    }
    void shutdown() {
        observes = false;
        closed = true;
        if (!hasSession) return;
        say("begin");
        for (const auto& [present, name] : {std::pair(&video, "video"), {&audio, "audio"}, {&metadata, "metadata"}}) {
            if (!std::exchange(*present, false)) continue;
            say(name + std::string(" receiver on nothing"), std::string("remove ") + name);
        }
        say("commit");
        outputs.clear();
        hasSession = running = cameraJoined = microphoneJoined = false;
    }
    [[nodiscard]] bool hasTorch() const { return hasDevice && script.torch; }
    void torchOn() {
        if (hasTorch())
            queues[kMain].asyncAfter(std::chrono::milliseconds(100), forCamera([this] {
                                         if (hasDevice) switchTorch(true);
                                     }));
    }
    void switchTorch(bool on) {
        say("camera lock", on ? "camera torch on" : "camera torch off", "camera unlock");
        torch = on;
    }
    void updatePreview(std::int64_t to) {
        if (to >= 1 && to <= 4) {
            say("preview orientation " + number(to));
            if (hasSession) orientOutputs();
        }
        if (torch) torchOn();
    }

    // ---- samples

    void deliver(bool isVideo, int width, bool drop, bool ready) {
        queues[kOutput].async(forCamera([=, this] {
            if (!(isVideo ? video : audio)) return;
            if (isVideo && !drop && resolution == 0) resolution = width;
            if (!drop && isWriting() && (isVideo ? writerVideo : writerAudio) && writing.ready && shouldRecord && ready)
                say(isVideo ? "video sample" : "audio sample");
            if (isVideo) tell(drop ? "drop" : "frame");
        }));
    }
    void decode(const std::vector<MetadataObject>& batch) {
        queues[kCodes].async(forCamera([=, this] {
            for (const MetadataObject& object : batch)
                if (object.type == "PDF417" && object.stringValue) return tell("barcode " + *object.stringValue);
        }));
    }

    // ---- recording

    void startRecording() {
        queues[kOutput].async(forCamera([this] { record(); }));
    }
    void record() {
        cleanUp();
        if (!recordVideo) return;
        shouldRecord = true;
        path = rig.camera->url()->string();
        say("make MPEG4 " + *path);
        writer = nullptr;
        if (!writing.refused.contains("writer")) writer = made.emplace_back(std::make_shared<Writer>());
        writerVideo = video;
        const bool efficient = script.codec == "HEVC" && rig.platform.serviceLevel >= 11;
        const auto rate =
            efficient ? 500'000 + 5'500'000 * (quality - 10) / 90 : 1'500'000 + 11'500'000 * (quality - 10) / 90;
        const bool joined = addTrack(
            video, "video", script.codec + " " + recordedSize + " AverageBitRate " + number(rate) + " Profile 7");
        if (!joined) writer = nullptr, say("Can't add writerInputVideo");
        writerAudio = sound && audio;
        if (!addTrack(writerAudio, "audio", "44100 at 128000") && writerAudio) say("Can't add writerInputAudio");
        if (!writer) return;
        say("start", hasSession ? "from 42 s" : "from 0 s");
        writer->status = Status::Writing;
    }
    bool addTrack(bool wanted, const std::string& name, const std::string& settings) {
        if (!wanted) return false;
        say(name + " " + settings, name + " real time");
        if (!writer || writing.refused.contains(name)) return false;
        say("add " + name);
        return true;
    }
    [[nodiscard]] bool isWriting() const { return writer && writer->status == Status::Writing; }
    void endTracks() {
        if (writerVideo) say("video finished");
        if (writerAudio) say("audio finished");
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
        const auto file = std::exchange(one.path, std::nullopt);
        const char* const words[] = {" other", " other", "", "Failed", "Cancelled"};
        if (file && status != Status::Completed)
            say(std::string("*** AVAssetWriterStatus") + words[static_cast<int>(status)]);
        if (!file || status != Status::Completed || delegate != 'd') return;
        if (!has.contains(nameOf(*file))) return say("Couldn't read item at path: " + nameOf(*file) + "\nno such file");
        say("told recording of " + number(has[nameOf(*file)]));
        removeFile(file);
    }
    void removeFile(const std::optional<std::string>& file) {
        if (file && !files.undeletable.contains(nameOf(*file))) has.erase(nameOf(*file));
    }
    void cleanUp() {
        if (files.listingFails) return say("Couldn't get contents of Documents directory:\nno such directory");
        std::erase_if(has, [this](const auto& file) {
            const std::string& name = file.first;
            const bool isLeft = name.starts_with("selvio_") && name.ends_with(".mp4");
            const bool stays = files.undeletable.contains(name);
            if (isLeft && stays) say("Couldn't delete item at path: " + name + "\nread-only");
            return isLeft && !stays;
        });
    }
};

/// One scenario: the camera and its model, and a generator of what happens.
class Scenario {
public:
    explicit Scenario(unsigned seed) : random_(seed) {
        rig_.capture->formats = {{{kPixelFormat420v, 640, 480}, 30.0},
                                 {{kPixelFormat32BGRA, 960, 540}, 30.0},
                                 {{kPixelFormat420v, 1280, 720}, 30.0},
                                 {{kPixelFormat420v, 1280, 960}, 30.0},
                                 {{kPixelFormat420v, 1920, 1080}, 30.0}};
        rig_.capture->torch = chance(2);
        rig_.capture->focusSupported = !chance(4);
        rig_.capture->codec = chance(2) ? "HEVC" : "H264";
        std::shuffle(rig_.capture->formats.begin(), rig_.capture->formats.end(), random_);
        rig_.platform.serviceLevel = 10 + any(3);
        const int held = any(5);
        rig_.platform.screen = nullptr;
        if (held > 0) {
            rig_.platform.screen =
                std::make_shared<FakeScreen>(Size{300.0, 600.0}, static_cast<InterfaceOrientation>(held));
            model_.recordedSize = held <= 2 ? "720x1280" : "1280x720";
        }
        rig_.make();
        for (int i = any(16); i > 0; --i) act(true);
    }

    /// Stops at the first difference, which is then reported.
    void run(int steps) {
        for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            act(false);
            compare();
        }
        model_.alive = false;
        const std::weak_ptr<Camera> camera = std::exchange(rig_.camera, nullptr);
        EXPECT_TRUE(camera.expired()) << "something that waits on a queue, which the host need not run, keeps it";
        for (int i = 0; i < 2; ++i) runQueues();
        compare();
    }

private:
    int any(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
    bool chance(int outOf) { return any(outOf) == 0; }
    template <typename T, std::size_t N>
    const T& anyOf(const T (&values)[N]) {
        return values[random_() % N];
    }
    std::set<std::string> some(std::initializer_list<const char*> names) {
        std::set<std::string> chosen;
        for (const char* name : names)
            if (chance(6)) chosen.insert(name);
        return chosen;
    }
    void runQueue(const std::string& label) {
        if (rig_.queues.contains(label)) rig_.queues[label]->runAll();
        model_.queues[label].runAll();
    }
    void runQueues() {
        for (const std::string& label : {kSession, kOutput, kCodes, kMain}) runQueue(label);
    }

    /// Does something to both.
    void act(bool settingsOnly) {
        Camera& camera = *rig_.camera;
        Model& m = model_;
        const std::function<void()> actions[] = {
            [&] { camera.setAnalyzeRGBVideo(m.rgb = chance(2)); },
            [&] { camera.setDetectPDF417(m.codes = chance(2)); },
            [&] { camera.parameters()->setRecordAudio(m.sound = chance(2)); },
            [&] { camera.parameters()->setRecordVideo(m.recordVideo = !chance(4)); },
            [&] { camera.setCameraOrientation(static_cast<VideoOrientation>(m.orientation = any(6))); },
            [&] { camera.parameters()->setVideoQuality(m.quality = 10 + any(91)); },
            [&] {
                camera.setDesiredResolution(m.desired = anyOf<Size>({{}, {1280, 720}, {1280, 960}}));
            },
            [&] {
                m.preset = chance(2) ? std::nullopt : std::optional(anyOf(kPresets));
                m.format = chance(3) ? kPixelFormat32BGRA : kPixelFormat420v;
                m.position = any(3);
                m.position == 1 ? camera.setPreset(m.preset, m.format)
                                : camera.setPreset(m.preset, m.format, static_cast<CaptureDevicePosition>(m.position));
            },
            // Those were the settings.
            [&] {
                const char kind = "dddds-"[any(6)];
                camera.setDelegate(kind == 'd' ? rig_.delegate : kind == 's' ? silent_ : nullptr);
                m.setDelegate(kind);
            },
            [&] { camera.start(), m.start(); },
            [&] { camera.start(), m.start(); },
            [&] { camera.stop(), m.stop(); },
            [&] {
                if (chance(5)) camera.shutdown(), m.shutdown();
            },
            [&] {
                EXPECT_EQ(camera.turnTorchOn(), m.hasTorch());
                m.torchOn();
            },
            [&] {
                EXPECT_EQ(camera.turnTorchOff(), m.hasTorch());
                if (m.hasTorch()) m.switchTorch(false);
            },
            [&, to = any(7)] { camera.updatePreviewLayer(static_cast<VideoOrientation>(to)), m.updatePreview(to); },
            [&] { camera.startRecording(), m.startRecording(); },
            [&] { camera.stopRecording(), m.queues[kOutput].async([&m] { m.finish(); }); },
            [&] { camera.discardRecording(), m.queues[kOutput].async([&m] { m.discard(); }); },
            [&] { camera.setShouldRecord(m.shouldRecord = !chance(3)); },
            [&] { camera.deleteCurrentRecording(), m.removeFile(m.path); },
            [&] { changeFaults(); },
            [&] { changeFiles(); },
            [&] { notify(static_cast<ApplicationNotification>(any(3))); },
            [&] { finishAWriter(); },
            [&] { deliver(); },
            [&] { deliver(); },
            [&] { deliver(); },
            [&] { runQueue(kSession); },
            [&] { runQueue(kOutput); },
            [&] { runQueue(kCodes); },
            [&] { runQueue(kMain); },
            [&] {
                rig_.clock->advance(std::chrono::milliseconds(123));
                for (ManualQueue* main : {rig_.queues[kMain].get(), &m.queues[kMain]})
                    main->advance(std::chrono::milliseconds(100));
            },
            [&] { runQueues(); },
        };
        actions[any(settingsOnly ? 8 : static_cast<int>(std::size(actions)))]();
    }
    void changeFaults() {
        FakeCaptureScript& script = *rig_.capture;
        script.refused =
            some({"camera", "microphone", "video", "audio", "metadata", "640x480", "1920x1080", "1280x720"});
        script.failingInputs = some({"camera", "microphone"});
        script.noCamera = chance(8);
        script.noMicrophone = chance(8);
        script.lockFails = chance(6);
        rig_.writing->refused = some({"writer", "video", "audio"});
        rig_.writing->ready = !chance(4);
    }
    void changeFiles() {
        const std::string name = model_.path && chance(2)
                                     ? nameOf(*model_.path)
                                     : anyOf<std::string>({"selvio_a.mp4", "selvio_b.MP4", "x.mp4"});
        const auto size = model_.has[name] = static_cast<std::size_t>(any(9));
        rig_.files->put(name, FakeFileManager::Bytes(size));
        rig_.files->undeletable = chance(3) ? std::set{name} : std::set<std::string>{};
        rig_.files->listingFails = chance(6);
    }
    void notify(ApplicationNotification notification) {
        rig_.notifications->post(notification);
        if (!model_.observes) return;
        if (notification == ApplicationNotification::WillResignActive) ++model_.covers;
        if (notification == ApplicationNotification::DidBecomeActive && model_.covers > 0) --model_.covers;
        if (notification == ApplicationNotification::WillTerminate) model_.cleanUp();
    }
    void finishAWriter() {
        if (model_.made.empty()) return;
        const auto which = static_cast<std::size_t>(any(static_cast<int>(model_.made.size())));
        const auto status =
            anyOf({Status::Completed, Status::Completed, Status::Failed, Status::Cancelled, Status::Unknown});
        const auto writer = rig_.writing->made[which].lock();
        if (!writer) return;
        writer->finish(status);
        model_.finished(*model_.made[which], status);
    }
    void deliver() {
        const int width = 2 + 2 * any(3);
        const bool ready = !chance(5), drop = chance(4);
        const auto from = [&](const auto& output, bool isVideo) {
            drop ? output->drop(frame(width, ready)) : output->deliver(frame(width, ready));
            if (isVideo ? model_.video : model_.audio) model_.deliver(isVideo, width, drop, ready);
        };
        if (rig_.system->video() && chance(2)) return from(rig_.system->video(), true);
        if (rig_.system->audio() && chance(2)) return from(rig_.system->audio(), false);
        if (!rig_.system->metadata()) return;
        std::vector<MetadataObject> batch;
        for (int i = any(4); i > 0; --i) {
            batch.push_back({chance(3) ? "QR" : "PDF417", std::string(static_cast<std::size_t>(i - 1), 'x'), {}});
            if (chance(3)) batch.back().stringValue.reset();
        }
        rig_.system->metadata()->decode(batch);
        if (model_.metadata) model_.decode(batch);
    }

    void compare() {
        const Model& m = model_;
        Strings calls = rig_.log.take(), names;
        std::erase(calls, "remove camera"), std::erase(calls, "remove microphone");  // the inputs are compared below
        EXPECT_EQ(calls, std::exchange(model_.calls, {}));
        for (const auto& [name, size] : m.has) names.push_back(name);
        EXPECT_EQ(rig_.files->names(), names);
        if (!rig_.camera) return;
        const Camera& camera = *rig_.camera;
        EXPECT_EQ((std::array{camera.isConfigured(), camera.isTorchON(), camera.isTorchOn(), camera.hasTorch(),
                              camera.shouldRecord(), !!camera.session(), !!camera.videoDevice(), !!camera.videoInput(),
                              !!camera.audioInput(), !!camera.videoDataOutput(), !!camera.audioDataOutput(),
                              !!camera.metaDataOutput(), !!camera.assetWriter(), !!camera.writerVideoInput(),
                              !!camera.writerAudioInput()}),
                  (std::array{m.configured, m.torch, m.torch, m.hasTorch(), m.shouldRecord, m.hasSession, m.hasDevice,
                              m.videoInput, m.audioInput, m.video, m.audio, m.metadata, !!m.writer, m.writerVideo,
                              m.writerAudio}));
        EXPECT_EQ(camera.resolution().width, m.resolution);
        EXPECT_EQ(camera.videoRecordingUrl().value_or("").string(), m.path.value_or(""));
        const auto covers = rig_.view->subviews();
        EXPECT_EQ(covers.size(), m.covers);
        const Rect screen = rig_.platform.screen ? Rect{0.0, 0.0, 300.0, 600.0} : rig_.view->frame();
        for (const BlurView& cover : covers) EXPECT_TRUE(cover.style == 1 && cover.tag == 77 && cover.frame == screen);
        EXPECT_EQ(static_cast<int>(rig_.system->session()->inputs().size()), m.cameraJoined + m.microphoneJoined);
        EXPECT_EQ(rig_.system->session()->outputs().size(), m.outputs.size());
    }

    std::mt19937 random_;
    CameraRig rig_;
    Model model_{rig_};
    const std::shared_ptr<SelvioFacialCaptureCameraDelegate> silent_ =
        std::make_shared<SelvioFacialCaptureCameraDelegate>();
};

TEST(CameraModel, randomScenariosAgree) {
    for (unsigned seed = 1; seed <= 400 && !HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Scenario(seed).run(80);
    }
}

}  // namespace
}  // namespace selvio
