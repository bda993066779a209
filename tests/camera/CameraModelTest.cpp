// A model of the camera, written from what it promises, beside the camera itself: the same random scenarios drive both,
// and every call, message, event, file and flag must agree.
#include <thread>

#include "CameraRig.h"
#include "support/Random.h"

namespace {

using namespace selvio;

using Status = AssetWriterStatus;
using Path = std::filesystem::path;
const std::string kPresets[] = {"640x480", "1920x1080", "1280x720", "High"};
const Size kSizes[] = {{}, {1280, 720}, {1280, 960}};
const std::string kQueues[] = {kSession, kOutput, kCodes, kMain};

/// Each port that can be missing, and what the camera says then.
const std::pair<void (*)(Platform&), const char*> kRemovals[] = {
    {[](Platform& from) { from.clock = nullptr; }, "clock: nothing is recorded"},
    {[](Platform& from) { from.mainQueue = nullptr; }, "mainQueue: the torch is not switched on"},
    {[](Platform& from) { from.makeSerialQueue = {}; }, "makeSerialQueue: the camera is never configured"},
    {[](Platform& from) { from.device = nullptr; }, nullptr},
    {[](Platform& from) { from.screen = nullptr; }, nullptr},
    {[](Platform& from) { from.captureSystem = nullptr; }, "captureSystem: there is no camera"},
    {[](Platform& from) { from.assetWriters = nullptr; }, "assetWriters: nothing is recorded"},
    {[](Platform& from) { from.fileManager = nullptr; }, "fileManager: nothing is recorded"},
    {[](Platform& from) { from.makeView = {}; }, nullptr},
    {[](Platform& from) { from.notificationCenter = nullptr; }, nullptr},
};

struct Model {
    struct Writer {
        Status status = Status::Unknown;
        bool asked = false;  ///< to finish
        Path path = {};      ///< of the file that is being finished
    };

    CameraRig rig;  // what goes wrong is set in its fakes and read there
    const Platform& platform = rig.platform;
    FakeCaptureScript& script = *rig.capture;
    FakeFileManager& disk = *rig.files;

    char delegate = '-';  ///< 'd': one that implements everything; 's': one that implements nothing
    bool rgb = true, codes = false, parameters = true, sound = false, recordVideo = false, shouldRecord = true;
    int position = 1, format = 0, orientation = 0, quality = 10;
    std::optional<std::string> preset;
    Size desired;
    Rect frame;

    bool alive = true, closed = false, configured = false, torch = false, running = false;
    bool hasSession = true, hasDevice = false, soundOpened = true, videoInput = false, audioInput = false;
    int resolution = 0;
    std::size_t covers = 0, inputs = 0;
    Strings outputs, tracks;  ///< of the session and of the last recording
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
    /// Submits work that is done for a camera that has gone as well.
    void submit(const std::string& queue, std::function<void()> work) {
        if (queue == kMain ? bool(platform.mainQueue) : bool(platform.makeSerialQueue))
            queues[queue].async(std::move(work));
    }
    /// Submits work that is not.
    void on(const std::string& queue, const std::function<void()>& work) {
        submit(queue, [=, this] { alive ? work() : void(); });
    }
    bool has(const std::string& part) const {
        return std::count(outputs.begin(), outputs.end(), part) + std::count(tracks.begin(), tracks.end(), part) > 0;
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
        if (platform.captureSystem) say("discover 1 type: BuiltInWideAngleCamera video", position);
        hasDevice = platform.captureSystem && script.allows("camera device");
        if (!hasDevice) return failed("Could not discover a capture device");
        videoInput = script.allows("camera input");
        if (!videoInput) return failed("Could not create video device input: not allowed");
        if (!hasSession || inputs > 0 || !script.allows("camera"))
            return failed("Could not add video device input to the session");
        say("add camera");
        ++inputs;
        on(kMain, [this] {
            if (platform.makeView) say("preview orientation", orientation == 0 ? 1 : orientation);
        });
        chooseResolution();
        const bool hears = parameters && sound;
        if (hears) {
            audioInput = soundOpened = script.allows("microphone device") && script.allows("microphone input");
            const bool joins = audioInput && script.allows("microphone");
            say(joins ? "add microphone" : "Could not add audio device input to the session");
            inputs += joins ? 1 : 0;
        }
        say("video format", rgb ? format : 0x34323076);
        say("video discards late");
        addOutput("video", kOutput, "Can't add videoDataOutput");
        if (hears && audioInput) addOutput("audio", kOutput, "Can't add audioDataOutput");
        if (codes) addOutput("metadata", kCodes, "Can't add metaDataOutput");
        if (has("metadata")) say("metadata 1 type: PDF417");
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
    void addOutput(const std::string& name, const std::string& queue, const char* refusal) {
        say(name, "receiver on", queue);
        if (!script.allows(name)) return say(refusal);
        say("add", name);
        outputs.push_back(name);
    }
    void orientOutputs() {
        const bool kept = orientation == 1 || orientation == 2 || orientation == 4;
        for (const std::string& name : outputs) say(name, "orientation", kept ? orientation : 3);
    }

    // ---- control

    void start() {
        on(kSession, [this] {
            on(kOutput, [this] { record(); });
            if (hasSession && !std::exchange(running, true)) say("run");
            running = hasSession;
        });
    }
    void stop() {
        turnTorchOff();
        if (!running) return;
        const auto end = [this, now = isWriting()] { now || isWriting() ? finish() : void(); };
        if (parameters && recordVideo) submit(kOutput, end);
        say("stop");
        running = false;
    }
    void shutdown() {
        closed = true;
        if (!hasSession) return;
        say("begin");
        for (const std::string& name : outputs) say(name, "receiver on nothing"), say("remove", name);
        say("commit");
        outputs.clear();
        inputs = 0;
        hasSession = running = false;
    }
    bool hasTorch() const { return hasDevice && script.torch; }
    bool turnTorchOn() {
        if (!hasTorch() || !platform.mainQueue) return false;
        queues[kMain].asyncAfter(std::chrono::milliseconds(100), [this] {
            if (alive && hasDevice) switchTorch(true);
        });
        return true;
    }
    bool turnTorchOff() {
        if (hasTorch()) switchTorch(false);
        return hasTorch();
    }
    void switchTorch(bool to) {
        say("camera lock"), say("camera torch", to ? "on" : "off"), say("camera unlock");
        torch = to;
    }
    void updatePreview(int to) {
        if (to >= 1 && to <= 4) {
            if (platform.makeView) say("preview orientation", to);
            if (hasSession) orientOutputs();
        }
        if (torch) turnTorchOn();
    }

    // ---- recording

    void record() {
        cleanUp();
        if (!parameters || !recordVideo) return;
        shouldRecord = true;
        const bool hasUrl = platform.clock && platform.fileManager;
        path = hasUrl ? "/documents" / rig.camera->url().value().filename() : Path();
        writer = nullptr;
        if (platform.assetWriters && hasUrl) {
            say("make MPEG4", path.string());
            if (script.allows("writer")) writer = made.emplace_back(std::make_shared<Writer>());
        }
        const auto held = platform.screen ? static_cast<int>(platform.screen->statusBarOrientation()) : 0;
        const char* const size = held == 0 ? "640 480" : held <= 2 ? "720 1280" : "1280 720";  // 0: as recommended
        const bool efficient = script.codec == "HEVC" && platform.serviceLevel >= 11;
        const int low = efficient ? 500'000 : 1'500'000, range = efficient ? 5'500'000 : 11'500'000;
        const auto rate = std::to_string(low + std::int64_t{range} * (quality - 10) / 90);
        const auto settings = script.codec + " " + size + " AverageBitRate" + rate + " Profile7 ";
        tracks.clear();
        if (!addTrack(has("video"), "video track", settings)) writer = nullptr, say("Can't add writerInputVideo");
        const bool hears = sound && has("audio");
        if (!addTrack(hears, "audio track", "44100 128000") && hears) say("Can't add writerInputAudio");
        if (!writer) return;
        say("start"), say("from", hasSession ? 42 : 0, "s");
        writer->status = Status::Writing;
    }
    bool addTrack(bool wanted, const std::string& name, const std::string& settings) {
        if (!wanted || !platform.assetWriters) return false;
        tracks.push_back(name);
        say(name, settings), say(name, "real time");
        if (!writer || !script.allows(name)) return false;
        say("add", name);
        return true;
    }
    bool isWriting() const { return writer && writer->status == Status::Writing; }
    void endTracks() {
        for (const std::string& name : tracks) say(name, "finished");
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
        tracks.clear();
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
        if (!platform.fileManager) return;
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
class Scenario : Model, Random {
public:
    explicit Scenario(unsigned seed) : Random(seed) {
        const std::pair<int, int> sizes[] = {{640, 480}, {1280, 720}, {1280, 960}, {1920, 1080}};
        for (const auto& [width, height] : sizes) script.formats.push_back({{kPixelFormat420v, width, height}, 30.0});
        script.formats.push_back({{kPixelFormat32BGRA, 960, 540}, 30.0});
        std::shuffle(script.formats.begin(), script.formats.end(), engine);
        script.torch = oneIn(2);
        script.focusSupported = !oneIn(4);
        script.codec = oneIn(2) ? "HEVC" : "H264";
        rig.platform.serviceLevel = 10 + below(3);
        rig.platform.screen =
            std::make_shared<FakeScreen>(Size{300, 600}, static_cast<InterfaceOrientation>(1 + below(4)));
        if (oneIn(3)) {
            const auto& [remove, message] = any(kRemovals);
            remove(rig.platform);
            if (message) say("The platform has no", message);
        }
        if (platform.makeView) say("gravity ResizeAspectFill");
        hasSession = platform.captureSystem != nullptr;
        rig.camera = makeCamera();
        parameters_ = rig.camera->parameters();
        parameters_->setRecordVideo(recordVideo = !oneIn(4));
        for (int i = below(16); i > 0; --i) act(true);
    }

    /// Stops at the first difference, which is then reported.
    void run(int steps) {
        if (oneIn(2)) setDelegate(), runQueues();
        for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            act(false);
            if (oneIn(2)) runQueue(any(kQueues));
            compare();
        }
        alive = false;
        const std::weak_ptr<Camera> camera = rig.camera;
        const std::weak_ptr<View> view = rig.camera->view();
        const bool elsewhere = oneIn(2);
        const auto release = [this] { rig.camera = nullptr; };
        elsewhere ? std::thread(release).join() : release();  // the view ends on the main queue all the same
        EXPECT_TRUE(camera.expired()) << "something that waits on a queue, which the host need not run, keeps it";
        EXPECT_EQ(!view.expired(), elsewhere && platform.mainQueue);
        runQueues(), runQueues();
        EXPECT_TRUE(view.expired());
        compare();
    }

private:
    std::set<std::string> some(std::initializer_list<const char*> names) {
        std::set<std::string> chosen(names.begin(), names.end());
        std::erase_if(chosen, [this](const auto&) { return !oneIn(7); });
        return chosen;
    }
    void runQueue(const std::string& label) {
        if (rig.queues.contains(label)) rig.queues[label]->runAll();
        queues[label].runAll();
    }
    void runQueues() {
        for (const std::string& label : kQueues) runQueue(label);
    }

    std::shared_ptr<Camera> makeCamera() {
        if (platform.makeView) frame = {1.0, 2.0, 3.0, 4.0};
        if (oneIn(2)) return Camera::init(platform);
        frame = {5.0, 6.0, 7.5, 8.0};
        choosePreset();
        orientation = below(6);
        const auto side = static_cast<CaptureDevicePosition>(position);
        const auto turned = static_cast<VideoOrientation>(orientation);
        if (orientation > 1) return Camera::initWithPreset(preset, format, side, turned, frame, platform);
        if (orientation == 1) return Camera::initWithPreset(preset, format, side, frame, platform);
        preset.reset();
        return Camera::initWithDesiredResolution(desired = any(kSizes), format, side, frame, platform);
    }

    /// Does something to both.
    void act(bool settingsOnly) {
        Camera& camera = *rig.camera;
        const int to = below(7);
        const std::function<void()> actions[] = {
            [&] { camera.setAnalyzeRGBVideo(rgb = oneIn(2)); },
            [&] { camera.setDetectPDF417(codes = oneIn(2)); },
            [&] { parameters_->setRecordAudio(sound = oneIn(2)); },
            [&] { parameters_->setRecordVideo(recordVideo = !oneIn(4)); },
            [&] { parameters_->setVideoQuality(quality = 10 + below(91)); },
            [&] { camera.setParameters((parameters = !oneIn(4)) ? parameters_ : nullptr); },
            [&] { camera.setCameraOrientation(static_cast<VideoOrientation>(orientation = below(6))); },
            [&] { camera.setDesiredResolution(desired = any(kSizes)); },
            [&] { setPreset(); },
            // Those were the settings.
            [&] { setDelegate(); },
            [&] { camera.start(), start(); },
            [&] { camera.stop(), stop(); },
            [&] {
                if (oneIn(5)) camera.shutdown(), shutdown();
            },
            [&] { EXPECT_EQ(camera.turnTorchOn(), turnTorchOn()); },
            [&] { EXPECT_EQ(camera.turnTorchOff(), turnTorchOff()); },
            [&] { camera.updatePreviewLayer(static_cast<VideoOrientation>(to)), updatePreview(to); },
            [&] {
                camera.startRecording(), on(kOutput, [this] { record(); });
                if (oneIn(2)) runQueue(kOutput);
            },
            [&] { camera.stopRecording(), submit(kOutput, [this] { finish(); }), runQueue(kOutput), finishAWriter(); },
            [&] { camera.discardRecording(), submit(kOutput, [this] { discard(); }); },
            [&] { camera.setShouldRecord(shouldRecord = !oneIn(3)); },
            [&] { camera.deleteCurrentRecording(), removeFile(path); },
            [&] { changeFaults(); },
            [&] { changeFiles(); },
            [&] { askForPermissions(); },
            [&] { notify(static_cast<ApplicationNotification>(below(3))); },
            [&] { finishAWriter(); },
            [&] { deliver(), deliver(), deliver(); },
            [&] {
                rig.clock->advance(std::chrono::milliseconds(123));
                for (auto* main : {&*rig.queues[kMain], &queues[kMain]}) main->advance(std::chrono::milliseconds(100));
            },
            [&] { runQueues(); },
        };
        actions[below(settingsOnly ? 9 : static_cast<int>(std::size(actions)))]();
    }
    void choosePreset() {
        preset = oneIn(2) ? std::nullopt : std::optional(any(kPresets));
        format = static_cast<int>(oneIn(3) ? kPixelFormat32BGRA : kPixelFormat420v);
        position = below(3);
    }
    void setPreset() {
        choosePreset();
        position == 1 ? rig.camera->setPreset(preset, format)
                      : rig.camera->setPreset(preset, format, static_cast<CaptureDevicePosition>(position));
    }
    void setDelegate() {
        delegate = "dddds-"[below(6)];
        rig.camera->setDelegate(delegate == 'd' ? rig.delegate : delegate == 's' ? silent_ : nullptr);
        if (delegate != '-') on(kSession, [this] { configure(); });
    }
    void changeFaults() {
        script.refused = some({"camera device", "microphone device", "camera input", "microphone input", "lock",
                               "camera", "microphone", "video", "audio", "metadata", "640x480", "1920x1080", "1280x720",
                               "writer", "video track", "audio track", "samples"});
    }
    void changeFiles() {
        const char* const names[] = {"selvio_a.mp4", "selvio_b.MP4", "x.mp4"};
        const Path name = !path.empty() && oneIn(2) ? path : Path("/documents") / any(names);
        disk.files[name] = files[name] = std::vector<std::uint8_t>(static_cast<std::size_t>(below(9)));
        disk.refused = some({"listing", "selvio_a.mp4"});
        if (oneIn(3)) disk.refused.insert(name.filename());
    }
    /// The fake's person, who is asked when nothing is determined, grants video only.
    void askForPermissions() {
        script.authorization = static_cast<AuthorizationStatus>(below(4));
        std::vector<bool> granted;
        const auto answer = [&](bool is) { granted.push_back(is); };
        Camera::checkCameraPermission(answer, platform), Camera::checkMicrophonePermission(answer, platform);
        const int status = platform.captureSystem ? static_cast<int>(script.authorization) : 2;
        EXPECT_EQ(granted, (std::vector{status == 0 || status == 3, status == 3}));
    }
    void notify(ApplicationNotification notification) {
        if (!platform.notificationCenter) return;
        platform.notificationCenter->post(notification);
        if (closed) return;
        if (notification == ApplicationNotification::WillResignActive) ++covers;
        if (notification == ApplicationNotification::DidBecomeActive && covers > 0) --covers;
        if (notification == ApplicationNotification::WillTerminate) cleanUp();
    }
    void finishAWriter() {
        if (made.empty()) return;
        const std::size_t which = made.size() - 1 - static_cast<std::size_t>(below(2)) % made.size();
        const auto real = script.writers[which].lock();
        if (!real) return;
        if (const Path& file = made[which]->path; !file.empty() && !oneIn(4))
            disk.files[file] = files[file] = {1, 2, 3};
        const auto status = static_cast<Status>("22340"[below(5)] - '0');  // mostly completed
        real->finish(status);
        finished(*made[which], status);
    }
    void deliver() {
        if (rig.system->video && oneIn(2)) return deliver(*rig.system->video);
        if (rig.system->audio && oneIn(2)) return deliver(*rig.system->audio);
        if (!has("metadata")) return;
        std::vector<MetadataObject> batch;
        for (int i = below(4); i > 0; --i) {
            batch.push_back({oneIn(3) ? "QR" : "PDF417", std::to_string(i), {}});
            if (oneIn(3)) batch.back().stringValue.reset();
        }
        auto& from = *rig.system->metadata;
        from.deliver([&from, batch](auto& to) { to.captureOutputDidOutputMetadataObjects(from, batch, nullptr); });
        on(kCodes, [=, this] {
            for (const MetadataObject& object : batch)
                if (object.type == "PDF417" && object.stringValue) return tell("barcode " + *object.stringValue);
        });
    }
    void deliver(auto& from) {
        const int width = 2 + 2 * below(3);
        const bool ready = !oneIn(5), drop = oneIn(4), isVideo = from.name == "video";
        from.deliver([&from, drop, sample = selvio::frame(width, ready)](auto& to) {
            drop ? to.captureOutputDidDropSampleBuffer(from, sample, nullptr)
                 : to.captureOutputDidOutputSampleBuffer(from, sample, nullptr);
        });
        if (!has(from.name)) return;
        on(kOutput, [=, this, name = from.name] {
            if (!has(name)) return;
            if (isVideo && !drop && resolution == 0) resolution = width;
            const bool isTaken = !drop && ready && shouldRecord && script.allows("samples");
            if (isTaken && isWriting() && has(name + " track")) say(name, "track sample");
            if (isVideo) tell(drop ? "drop" : "frame");
        });
    }

    void compare() {
        EXPECT_EQ(rig.log.take(), calls.take());
        EXPECT_EQ(disk.files, files);
        const auto& session = rig.system->session;
        EXPECT_EQ(session ? session->inputs().size() : 0, inputs);
        EXPECT_EQ(session ? session->outputs().size() : 0, outputs.size());
        if (!rig.camera) return;
        const Camera& c = *rig.camera;
        EXPECT_EQ((std::array{c.isConfigured(), c.isTorchON(), c.isTorchOn(), c.hasTorch(), c.shouldRecord(),
                              !!c.session(), !!c.videoDevice(), !!c.videoInput(), !!c.audioInput(),
                              !!c.videoDataOutput(), !!c.audioDataOutput(), !!c.metaDataOutput(), !!c.assetWriter(),
                              !!c.writerVideoInput(), !!c.writerAudioInput()}),
                  (std::array{configured, torch, torch, hasTorch(), shouldRecord, hasSession, hasDevice, videoInput,
                              audioInput, has("video"), has("audio"), has("metadata"), !!writer, has("video track"),
                              has("audio track")}));
        const auto& view = dynamic_cast<PlainView&>(*c.view());
        EXPECT_EQ(
            std::tuple(c.resolution().width, c.videoRecordingUrl().value_or(""), view.frame(), view.subviews().size()),
            std::tuple(resolution, path, frame, covers));
        const Rect screen = platform.screen ? Rect{0.0, 0.0, 300.0, 600.0} : frame;
        for (const BlurView& cover : view.subviews())
            EXPECT_TRUE(cover.style == 1 && cover.tag == 77 && cover.frame == screen);
    }

    const std::shared_ptr<Delegate> silent_ = std::make_shared<Delegate>();
    std::shared_ptr<SelvioFacialCaptureCameraParameters> parameters_;
};

TEST(CameraModel, RandomScenariosAgree) {
    for (unsigned seed = 1; seed <= 500 && !HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Scenario(seed).run(80);
    }
}

}  // namespace
