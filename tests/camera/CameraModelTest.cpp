// A model of the camera, written from what it promises, beside the camera itself: the same random scenarios drive both,
// and every call, message, event, file and flag must agree.
#include <algorithm>
#include <deque>
#include <random>

#include "CameraRig.h"

namespace selvio {
namespace {

const std::string kOutputQueue = "com.selvio.facialcapture.videoDataOutputQueue";
const std::string kPresets[] = {"640x480", "1920x1080", "1280x720", "High"};

std::string number(auto value) {
    return std::to_string(static_cast<std::int64_t>(value));
}

struct Model {
    struct Writer {
        AssetWriterStatus status = AssetWriterStatus::Unknown;
        bool asked = false;               ///< to finish
        std::optional<std::string> path;  ///< of the file that is being finished
    };
    using Tasks = std::deque<std::function<void()>>;

    explicit Model(CameraRig& rig) : script(*rig.capture), writing(*rig.writing), files(*rig.files), rig(rig) {}

    void run(Tasks& tasks) {
        while (!tasks.empty()) {
            const auto task = std::move(tasks.front());
            tasks.pop_front();
            task();
        }
    }

    // ---- configuration

    void setDelegate(char kind) {
        delegate = kind;
        if (kind != '-') session.push_back([this] { configure(); });
    }
    void configure() {
        if (!alive) return;
        if (hasSession) say("begin");
        const bool built = begin();
        if (hasSession) say("commit");
        if (!built) return;
        say("camera lock");
        if (script.focusSupported) say("camera focus centre"), say("camera focus mode 2");
        say("camera unlock");
        if (script.lockFails || !soundOpened) {
            logs.push_back("Failed to set continuous autofocus and point of interest");
            return;
        }
        orientOutputs();
        if (delegate != 'd') return;
        configured = true;
        tell("configured");
    }
    bool begin() {
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
        main.push_back([this] {
            if (alive) say("preview orientation " + number(orientation == 0 ? 1 : orientation));
        });
        chooseResolution();
        if (sound) {
            audioInput = !script.noMicrophone && !script.failingInputs.contains("microphone");
            soundOpened = audioInput;
            if (audioInput && !microphoneJoined && !script.refused.contains("microphone")) {
                say("add microphone");
                microphoneJoined = true;
            } else {
                logs.push_back("Could not add audio device input to the session");
            }
        }
        say("video format " + number(rgb ? format : 0x34323076));
        say("video discards late");
        video = addOutput("video", kOutputQueue, "Can't add videoDataOutput");
        if (sound && audioInput) audio = addOutput("audio", kOutputQueue, "Can't add audioDataOutput");
        if (codes) {
            metadata = addOutput("metadata", "MetaDataOutputQueue", "Can't add metaDataOutput");
            if (metadata) say("metadata types PDF417");
        }
        return true;
    }
    void chooseResolution() {
        if (preset) {
            for (const std::string& wanted : {*preset, kPresets[1], kPresets[2]}) {
                say("can set " + wanted);
                if (script.refused.contains(wanted)) continue;
                say("set " + wanted);
                return;
            }
            say("set High");
            return;
        }
        if (desired == Size{}) return;
        VideoFormatDescription chosen;
        for (const CaptureDeviceFormat& one : script.formats) {
            const auto& is = one.formatDescription;
            if (is.mediaSubType != format || is.width <= chosen.width) continue;
            chosen = is;
            if (is.width == desired.width && is.height == desired.height) break;
        }
        if (chosen.width == 0) return;
        say("camera lock");
        say("camera format " + number(chosen.width) + "x" + number(chosen.height));
        say("camera unlock");
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
        session.push_back([this] {
            if (!alive) return;
            startRecording();
            if (hasSession && !running) say("run"), running = true;
        });
    }
    void stop() {
        torchOff();
        if (!hasSession || !running) return;
        if (recordVideo) {
            const bool now = isWriting();
            output.push_back([this, now] {
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
            say(name + std::string(" receiver on nothing"));
            say(name + std::string(" removed"));
        }
        say("commit");
        outputs.clear();
        hasSession = running = cameraJoined = microphoneJoined = false;
    }
    [[nodiscard]] bool hasTorch() const { return hasDevice && script.torch; }
    void torchOn() {
        if (hasTorch())
            delayed.push_back([this] {
                if (alive && hasDevice) switchTorch(true);
            });
    }
    void torchOff() {
        if (hasTorch()) switchTorch(false);
    }
    void switchTorch(bool on) {
        say("camera lock");
        say(on ? "camera torch on" : "camera torch off");
        torch = on;
        say("camera unlock");
    }
    void updatePreview(std::int64_t to) {
        const bool wasOn = torch;
        if (to >= 1 && to <= 4) {
            say("preview orientation " + number(to));
            if (hasSession) orientOutputs();
        }
        if (wasOn) torchOn();
    }

    // ---- samples

    void deliver(const std::string& name, int width, bool drop, bool ready) {
        output.push_back([this, name, width, drop, ready] {
            const bool isVideo = name == "video";
            if (!alive || !(isVideo ? video : audio)) return;
            if (!drop) {
                if (isVideo && resolution == 0) resolution = width;
                const bool hasInput = isVideo ? writerVideo : writerAudio;
                if (isWriting() && hasInput && writing.ready && shouldRecord && ready)
                    writes.push_back(name + " sample");
            }
            if (isVideo) tell(drop ? "drop" : "frame");
        });
    }
    void decode(const std::vector<MetadataObject>& batch) {
        codesQueue.push_back([this, batch] {
            for (const MetadataObject& object : batch) {
                if (!alive || object.type != "PDF417" || !object.stringValue) continue;
                tell("barcode " + *object.stringValue);
                return;
            }
        });
    }

    // ---- recording

    void startRecording() {
        output.push_back([this] {
            if (!alive) return;
            cleanUp();
            if (!recordVideo) return;
            shouldRecord = true;
            path = rig.camera->url()->string();
            writes.push_back("make MPEG4 " + *path);
            writer = writing.refused.contains("writer") ? nullptr : std::make_shared<Writer>();
            writerVideo = video;
            if (video) {
                const std::int64_t q = quality - 10;
                const bool efficient = script.codec == "HEVC" && rig.platform.serviceLevel >= 11;
                const auto rate = efficient ? 500'000 + 5'500'000 * q / 90 : 1'500'000 + 11'500'000 * q / 90;
                writes.push_back("video " + script.codec + (landscape ? " 1280x720 at " : " 720x1280 at ") +
                                 number(rate));
                writes.push_back("video real time");
            }
            if (writer && video && !writing.refused.contains("video")) {
                writes.push_back("add video");
            } else {
                logs.push_back("Can't add writerInputVideo");
                writer = nullptr;
            }
            writerAudio = sound && audio;
            if (writerAudio) {
                writes.push_back("audio 44100 at 128000");
                writes.push_back("audio real time");
                if (writer && !writing.refused.contains("audio")) {
                    writes.push_back("add audio");
                } else {
                    logs.push_back("Can't add writerInputAudio");
                }
            }
            if (!writer) return;
            writes.push_back("start");
            writes.push_back(hasSession ? "from 42 s" : "from 0 s");
            writer->status = AssetWriterStatus::Writing;
        });
    }
    [[nodiscard]] bool isWriting() const { return writer && writer->status == AssetWriterStatus::Writing; }
    void endTracks() {
        if (writerVideo) writes.push_back("video finished");
        if (writerAudio) writes.push_back("audio finished");
    }
    void finish() {
        shouldRecord = false;
        if (!writer || std::exchange(writer->asked, true)) return;
        if (isWriting()) endTracks();
        writes.push_back("finish");
        writer->path = path;
    }
    void discard() {
        shouldRecord = false;
        endTracks();
        if (writer) writes.push_back("cancel"), writer->status = AssetWriterStatus::Cancelled;
        writer = nullptr;
        writerVideo = writerAudio = false;
        removeFile(path);
    }
    void finished(Writer& one, AssetWriterStatus status) {
        one.status = status;
        const auto file = std::exchange(one.path, std::nullopt);
        if (!file) return;
        if (status != AssetWriterStatus::Completed) {
            logs.push_back("*** AVAssetWriterStatus" + std::string(status == AssetWriterStatus::Failed ? "Failed"
                                                                   : status == AssetWriterStatus::Cancelled
                                                                       ? "Cancelled"
                                                                       : " other"));
            return;
        }
        if (delegate != 'd') return;
        const auto found = has.find(nameOf(*file));
        if (found == has.end()) {
            logs.push_back("Couldn't read item at path: " + nameOf(*file) + "\nno such file");
            return;
        }
        events.push_back("recording of " + number(found->second));
        removeFile(file);
    }
    static std::string nameOf(const std::string& file) { return file.substr(file.rfind('/') + 1); }
    void removeFile(const std::optional<std::string>& file) {
        if (file && !files.undeletable.contains(nameOf(*file))) has.erase(nameOf(*file));
    }
    void cleanUp() {
        if (files.listingFails) {
            logs.push_back("Couldn't get contents of Documents directory:\nno such directory");
            return;
        }
        for (auto file = has.begin(); file != has.end();) {
            const std::string name = (file++)->first;
            if (!name.starts_with("selvio_") || !name.ends_with(".mp4")) continue;
            if (files.undeletable.contains(name)) {
                logs.push_back("Couldn't delete item at path: " + name + "\nread-only");
            } else {
                has.erase(name);
            }
        }
    }

    void say(const std::string& call) { calls.push_back(call); }
    bool failed(const std::string& message) {
        logs.push_back(message);
        return false;
    }
    void tell(const std::string& event) {
        if (delegate == 'd' && !closed) events.push_back(event);
    }

    // What goes wrong is set in the fakes and read there.
    FakeCaptureScript& script;
    FakeWriterScript& writing;
    FakeFileManager& files;
    CameraRig& rig;

    char delegate = '-';  ///< 'd': one that implements everything; 's': one that implements nothing
    bool rgb = true, codes = false, sound = false, recordVideo = false, shouldRecord = true;
    std::int64_t position = 1, format = 0, orientation = 0, quality = 10;
    std::optional<std::string> preset;
    Size desired;
    bool landscape = false;  ///< the screen

    bool alive = true, closed = false, observes = true, configured = false, torch = false, running = false;
    bool hasSession = true, hasDevice = false, cameraJoined = false, microphoneJoined = false, soundOpened = true;
    bool videoInput = false, audioInput = false, video = false, audio = false, metadata = false;
    bool writerVideo = false, writerAudio = false;
    int resolution = 0, covers = 0;
    std::vector<std::string> outputs;
    std::shared_ptr<Writer> writer;
    std::optional<std::string> path;
    std::map<std::string, std::size_t> has;  ///< files and their sizes

    Tasks session, output, main, delayed, codesQueue;
    Strings calls, writes, logs, events;
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
        using Screen = InterfaceOrientation;
        const auto screen =
            anyOf({Screen::Portrait, Screen::PortraitUpsideDown, Screen::LandscapeLeft, Screen::LandscapeRight});
        model_.landscape = screen == Screen::LandscapeLeft || screen == Screen::LandscapeRight;
        rig_.platform.screen = std::make_shared<FakeScreen>(Size{300.0, 600.0}, screen);
        rig_.make();
        session_ = std::dynamic_pointer_cast<FakeCaptureSession>(rig_.camera->session());
        for (int i = any(16); i > 0; --i) configureSettings();
    }

    /// False at the first difference, which has then been reported.
    bool run(int steps) {
        bool same = true;
        for (int i = 0; i < steps && same; ++i) {
            step();
            same = agree();
        }
        if (same && rig_.camera) {
            model_.alive = false;
            rig_.camera.reset();
            video_.reset(), audio_.reset(), metadata_.reset();
            for (int i = 0; i < 2; ++i) runQueues();
            same = agree();
        }
        return same;
    }
    std::string trace;

private:
    int any(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
    bool chance(int outOf) { return any(outOf) == 0; }
    template <typename T, std::size_t N>
    const T& anyOf(const T (&values)[N]) {
        return values[random_() % N];
    }

    void runQueue(const std::string& ending, Model::Tasks& tasks) {
        for (const auto& [label, queue] : rig_.queues) {
            if (label.ends_with(ending)) queue->runAll();
        }
        model_.run(tasks);
    }
    void runQueues() {
        runQueue(".avCaptureSessionQueue", model_.session);
        runQueue(".videoDataOutputQueue", model_.output);
        runQueue("MetaDataOutputQueue", model_.codesQueue);
        rig_.main->runAll();
        model_.run(model_.main);
    }

    void step() {
        Camera& camera = *rig_.camera;
        Model& m = model_;
        const std::function<void()> kinds[] = {
            [&] { configureSettings(); },
            [&] { configureSettings(); },
            [&] { setDelegate("dddds-"[any(6)]); },
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
                m.torchOff();
            },
            [&] {
                const int to = any(7);
                camera.updatePreviewLayer(static_cast<VideoOrientation>(to));
                m.updatePreview(to);
            },
            [&] { camera.startRecording(), m.startRecording(); },
            [&] { camera.stopRecording(), m.output.push_back([&m] { m.finish(); }); },
            [&] { camera.discardRecording(), m.output.push_back([&m] { m.discard(); }); },
            [&] { camera.setShouldRecord(m.shouldRecord = !chance(3)); },
            [&] { camera.deleteCurrentRecording(), m.removeFile(m.path); },
            [&] { changeFaults(); },
            [&] { changeFiles(); },
            [&] { notify(); },
            [&] { finishAWriter(); },
            [&] { deliver(); },
            [&] { deliver(); },
            [&] { deliver(); },
            [&] { runQueue(".avCaptureSessionQueue", m.session); },
            [&] { runQueue(".videoDataOutputQueue", m.output); },
            [&] { runQueue("MetaDataOutputQueue", m.codesQueue); },
            [&] { rig_.main->runAll(), m.run(m.main); },
            [&] {
                // What was delayed comes after what was ready.
                rig_.clock->advance(std::chrono::milliseconds(123));
                rig_.main->advance(std::chrono::milliseconds(100));
                m.run(m.main);
                m.run(m.delayed);
            },
            [&] { runQueues(); },
        };
        const int kind = any(static_cast<int>(std::size(kinds)));
        trace += " " + number(kind);
        kinds[kind]();
        rememberParts();
    }
    void setDelegate(char kind) {
        rig_.camera->setDelegate(kind == 'd' ? rig_.delegate : kind == 's' ? silent_ : nullptr);
        model_.setDelegate(kind);
    }
    void configureSettings() {
        Camera& camera = *rig_.camera;
        Model& m = model_;
        const std::function<void()> settings[] = {
            [&] { camera.setAnalyzeRGBVideo(m.rgb = chance(2)); },
            [&] { camera.setDetectPDF417(m.codes = chance(2)); },
            [&] { camera.parameters()->setRecordAudio(m.sound = chance(2)); },
            [&] { camera.parameters()->setRecordVideo(m.recordVideo = !chance(4)); },
            [&] { camera.setCameraOrientation(static_cast<VideoOrientation>(m.orientation = any(6))); },
            [&] { camera.parameters()->setVideoQuality(m.quality = 10 + any(91)); },
            [&] {
                m.desired = chance(3) ? Size{} : Size{1280, chance(2) ? 720.0 : 960.0};
                camera.setDesiredResolution(m.desired);
            },
            [&] {
                m.preset = chance(2) ? std::nullopt : std::optional(anyOf(kPresets));
                m.format = chance(3) ? kPixelFormat32BGRA : kPixelFormat420v;
                m.position = any(3);
                if (m.position == 1) {
                    camera.setPreset(m.preset, m.format);
                } else {
                    camera.setPreset(m.preset, m.format, static_cast<CaptureDevicePosition>(m.position));
                }
            },
        };
        settings[any(static_cast<int>(std::size(settings)))]();
    }
    void changeFaults() {
        FakeCaptureScript& script = *rig_.capture;
        const auto some = [this](std::initializer_list<const char*> names) {
            std::set<std::string> chosen;
            for (const char* name : names) {
                if (chance(6)) chosen.insert(name);
            }
            return chosen;
        };
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
                                     ? Model::nameOf(*model_.path)
                                     : anyOf<std::string>({"selvio_a.mp4", "selvio_b.MP4", "x.mp4"});
        const auto size = static_cast<std::size_t>(any(9));
        rig_.files->put(name, FakeFileManager::Bytes(size));
        model_.has[name] = size;
        rig_.files->undeletable = chance(3) ? std::set{name} : std::set<std::string>{};
        rig_.files->listingFails = chance(6);
    }
    void notify() {
        const auto notification = static_cast<ApplicationNotification>(any(3));
        rig_.notifications->post(notification);
        if (!model_.observes) return;
        if (notification == ApplicationNotification::WillResignActive) ++model_.covers;
        if (notification == ApplicationNotification::DidBecomeActive && model_.covers > 0) --model_.covers;
        if (notification == ApplicationNotification::WillTerminate) model_.cleanUp();
    }
    void finishAWriter() {
        if (writers_.empty()) return;
        const auto& [fake, model] = writers_[static_cast<std::size_t>(any(static_cast<int>(writers_.size())))];
        using Status = AssetWriterStatus;
        const auto status =
            anyOf({Status::Completed, Status::Completed, Status::Failed, Status::Cancelled, Status::Unknown});
        fake->finish(status);
        model_.finished(*model, status);
    }
    void deliver() {
        const int width = 2 + 2 * any(3);
        const bool ready = !chance(5), drop = chance(4);
        const auto sample = frame(width, 2, ready);
        if (video_ && chance(2)) {
            drop ? video_->drop(sample) : video_->deliver(sample);
            if (model_.video) model_.deliver("video", width, drop, ready);
        } else if (audio_ && chance(2)) {
            drop ? audio_->drop(sample) : audio_->deliver(sample);
            if (model_.audio) model_.deliver("audio", width, drop, ready);
        } else if (metadata_) {
            std::vector<MetadataObject> batch;
            for (int i = any(4); i > 0; --i)
                batch.push_back(
                    {chance(3) ? "QR" : "PDF417",
                     chance(3) ? std::nullopt : std::optional(std::string(static_cast<std::size_t>(i - 1), 'x')),
                     {}});
            metadata_->decode(batch);
            if (model_.metadata) model_.decode(batch);
        }
    }
    /// The parts of the camera, which a shutdown takes from it while their deliveries may still be on their way.
    void rememberParts() {
        const auto keep = [](auto& part, const auto& now) {
            if (auto fake = std::dynamic_pointer_cast<std::remove_reference_t<decltype(*part)>>(now)) part = fake;
        };
        keep(video_, rig_.camera->videoDataOutput());
        keep(audio_, rig_.camera->audioDataOutput());
        keep(metadata_, rig_.camera->metaDataOutput());
        const auto fake = std::dynamic_pointer_cast<FakeAssetWriter>(rig_.camera->assetWriter());
        if (fake && model_.writer && (writers_.empty() || writers_.back().first != fake))
            writers_.emplace_back(fake, model_.writer);
    }

    bool agree() {
        Strings calls;
        for (const std::string& call : rig_.capture->calls.take()) {
            EXPECT_FALSE(call.ends_with(" unlocked")) << call;
            if (call == "remove camera" || call == "remove microphone") continue;  // see the session's inputs instead
            calls.push_back(call.starts_with("remove ") ? call.substr(7) + " removed" : call);
        }
        EXPECT_EQ(calls, std::exchange(model_.calls, {}));
        EXPECT_EQ(rig_.writing->calls.take(), std::exchange(model_.writes, {}));
        EXPECT_EQ(rig_.log.take(), std::exchange(model_.logs, {}));
        EXPECT_EQ(std::exchange(rig_.events, {}), std::exchange(model_.events, {}));
        Strings names;
        for (const auto& [name, size] : model_.has) names.push_back(name);
        EXPECT_EQ(rig_.files->names(), names);
        if (!rig_.camera) return !testing::Test::HasFailure();
        const Camera& camera = *rig_.camera;
        const Model& m = model_;
        const auto flags = [](std::initializer_list<bool> all) { return std::vector<bool>(all); };
        EXPECT_EQ(flags({camera.isConfigured(), camera.isTorchON(), camera.isTorchOn(), camera.hasTorch(),
                         camera.shouldRecord(), camera.session() != nullptr, camera.videoDevice() != nullptr,
                         camera.videoInput() != nullptr, camera.audioInput() != nullptr,
                         camera.videoDataOutput() != nullptr, camera.audioDataOutput() != nullptr,
                         camera.metaDataOutput() != nullptr, camera.assetWriter() != nullptr,
                         camera.writerVideoInput() != nullptr, camera.writerAudioInput() != nullptr}),
                  flags({m.configured, m.torch, m.torch, m.hasTorch(), m.shouldRecord, m.hasSession, m.hasDevice,
                         m.videoInput, m.audioInput, m.video, m.audio, m.metadata, m.writer != nullptr, m.writerVideo,
                         m.writerAudio}));
        EXPECT_EQ(camera.resolution().width, m.resolution);
        EXPECT_EQ(camera.videoRecordingUrl().value_or("").string(), m.path.value_or(""));
        EXPECT_EQ(rig_.view->subviews.size(), static_cast<std::size_t>(m.covers));
        for (const BlurView& cover : rig_.view->subviews)
            EXPECT_TRUE(cover.style == 1 && cover.tag == 77 && cover.frame == (Rect{0.0, 0.0, 300.0, 600.0}));
        EXPECT_EQ(static_cast<int>(session_->inputs().size()), m.cameraJoined + m.microphoneJoined);
        EXPECT_EQ(session_->outputs().size(), m.outputs.size());
        return !testing::Test::HasFailure();
    }

    std::mt19937 random_;
    CameraRig rig_;
    Model model_{rig_};
    const std::shared_ptr<SelvioFacialCaptureCameraDelegate> silent_ =
        std::make_shared<SelvioFacialCaptureCameraDelegate>();
    std::shared_ptr<FakeCaptureSession> session_;
    std::shared_ptr<FakeVideoDataOutput> video_;
    std::shared_ptr<FakeAudioDataOutput> audio_;
    std::shared_ptr<FakeMetadataOutput> metadata_;
    std::vector<std::pair<std::shared_ptr<FakeAssetWriter>, std::shared_ptr<Model::Writer>>> writers_;
};

TEST(CameraModel, randomScenariosAgree) {
    for (unsigned seed = 1; seed <= 400; ++seed) {
        Scenario scenario(seed);
        ASSERT_TRUE(scenario.run(80)) << "seed " << seed << ", steps" << scenario.trace;
    }
}

}  // namespace
}  // namespace selvio
