// The real program: exit codes, what it prints and what it leaves behind.
#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>
#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/simulated/SimulatedFrames.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstring>
#include <nlohmann/json.hpp>

#include "support/TemporaryDirectory.h"

namespace selvio {
namespace {

using nlohmann::json;
using test::contentOf;
using test::TemporaryDirectory;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

const fs::path kSamples = SELVIO_SAMPLES;

struct Ended {
    int exitCode = -1;  ///< -1: killed by a signal
    std::string out;
    std::string err;
    [[nodiscard]] std::vector<json> lines() const {
        std::vector<json> parsed;
        std::istringstream stream(out);
        for (std::string line; std::getline(stream, line);) parsed.push_back(json::parse(line));
        return parsed;
    }
};

class SelvioCapture : public testing::Test {
protected:
    fs::path path(const std::string& name) const { return directory_.path() / name; }

    /// Runs the program to its end. `onOutput` gets everything it has printed so far, once there is something new, and
    /// its process.
    Ended run(std::vector<std::string> arguments,
              const std::function<void(const std::string& out, pid_t program)>& onOutput = {},
              const std::string& outputFile = "") {
        arguments.insert(arguments.begin(), SELVIO_CAPTURE_PROGRAM);
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        int pipe[2] = {-1, -1};
        if (!onTerminal_ && ::pipe(pipe) != 0) return {};
        const auto errors = path("errors.txt");
        const pid_t program = onTerminal_ ? ::forkpty(&pipe[0], nullptr, nullptr, nullptr) : ::fork();
        if (program == 0) {
            ::setenv("LC_ALL", language_.c_str(), 1);
            ::setenv("XDG_DATA_HOME", directory_.path().c_str(), 1);
            ::unsetenv("DISPLAY");
            ::unsetenv("WAYLAND_DISPLAY");
            if (!onTerminal_) {
                ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
                ::dup2(outputFile.empty() ? pipe[1] : ::open(outputFile.c_str(), O_WRONLY), STDOUT_FILENO);
                ::dup2(::open(errors.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600), STDERR_FILENO);
                ::close(pipe[0]);
                ::close(pipe[1]);
            }
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        if (!onTerminal_) ::close(pipe[1]);
        terminal_ = pipe[0];
        Ended ended;
        char buffer[4096];
        for (ssize_t count = 0; (count = ::read(pipe[0], buffer, sizeof buffer)) > 0;) {
            ended.out.append(buffer, static_cast<std::size_t>(count));
            if (onOutput) onOutput(ended.out, program);
        }
        ::close(pipe[0]);
        int status = 0;
        ::waitpid(program, &status, 0);
        ended.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        ended.err = contentOf(errors);
        return ended;
    }

    /// `run` over the simulated camera with one of the sample's scripts, results in "out".
    std::vector<std::string> capture(const fs::path& script, std::vector<std::string> more) const {
        std::vector<std::string> arguments = {"run",      "--json",        "--source", "simulated",
                                              "--script", script.string(), "--out",    path("out").string()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }
    fs::path emptyScene() const {
        return directory_.write("empty.json", R"({"keyFrames": [{"at": 0, "visible": false}]})");
    }
    json record() const { return json::parse(contentOf(path("out/record.json"))); }
    std::vector<std::string> results() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(path("out"))) names.push_back(entry.path().filename());
        std::ranges::sort(names);
        return names;
    }

    const TemporaryDirectory directory_;
    std::string language_ = "C";
    bool onTerminal_ = false;  ///< instead of pipes; `terminal_` is then the person's side of it
    int terminal_ = -1;
};

/// A portrait as the simulated camera sees it, with what the script says.
std::shared_ptr<PixelBuffer> scene(const std::string& keyFrame) {
    const auto script = MotionScript::parse(R"({"keyFrames": [)" + keyFrame + "]}", "test");
    const auto photograph = JpegPngImageLoader().loadImage((kSamples / "astronaut.jpg").string());
    const auto geometry = FaceGeometry::load(kSamples / "astronaut.json");
    const auto frames = SimulatedFrames::make(photograph.value(), geometry.value(), script.value());
    return frames.value()->frame({}, 720, 1280, kPixelFormat32BGRA);
}

TEST_F(SelvioCapture, AnswersQuestionsAboutItself) {
    EXPECT_EQ(run({"run", "--help"}).exitCode, 0);
    EXPECT_THAT(run({"--version"}).out, HasSubstr("3.2.1"));
    EXPECT_EQ(run({"--timeout", "100"}).exitCode, 2);
}

TEST_F(SelvioCapture, JudgesPictures) {
    const std::string good = R"({"at": 0, "visible": true, "center": [0.5, 0.46], "jawWidth": 0.63})";
    const std::vector<std::tuple<std::string, std::string, std::size_t, std::vector<int>>> rows = {
        {"good.jpg", good, 1, {14}},
        {"nobody.jpg", R"({"at": 0, "visible": false})", 0, {1}},
        {"two.jpg",
         R"({"at": 0, "visible": true, "center": [0.26, 0.45], "jawWidth": 0.37, "second": {"center": [0.76, 0.45], "jawWidth": 0.37}})",
         2,
         {2}},
        {"far.jpg", R"({"at": 0, "visible": true, "center": [0.5, 0.46], "jawWidth": 0.42})", 1, {6}},
    };
    std::vector<std::string> arguments = {"check", "--json"};
    for (const auto& [name, keyFrame, faces, statuses] : rows) {
        arguments.push_back(
            directory_.write(name, LibjpegImageCodec().encodeJpeg(Image{scene(keyFrame)}, 0.95).value()));
    }
    const auto ended = run(arguments);
    EXPECT_EQ(ended.exitCode, 0) << ended.err;
    const auto lines = ended.lines();
    ASSERT_EQ(lines.size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto& [name, keyFrame, faces, statuses] = rows[i];
        EXPECT_EQ(lines[i]["image"], path(name).string());
        EXPECT_EQ(lines[i]["faces"], faces) << name;
        EXPECT_EQ(lines[i]["statuses"], statuses) << name;
        EXPECT_EQ(lines[i]["measures"].is_null(), faces != 1) << name;
    }
    const auto& fill = lines[0]["measures"]["fill"];
    EXPECT_NEAR(fill["value"].get<double>(), 0.63, 0.03);
    EXPECT_EQ(fill["min"], 0.55);
    EXPECT_EQ(fill["max"], 0.725);

    // The same picture under other limits.
    const auto strict = run({"check", "--json", "--min-fill", "750", "--max-fill", "850", path("good.jpg")});
    EXPECT_EQ(strict.lines().at(0)["statuses"], json({6}));
    language_ = "de_DE.UTF-8";
    EXPECT_THAT(run({"check", path("far.jpg")}).out, HasSubstr("Kommen Sie näher"));
}

TEST_F(SelvioCapture, NamesPicturesThatItCannotRead) {
    const std::string sample = kSamples / "astronaut.jpg";
    const auto text = directory_.write("text.jpg", "This is not a picture.\n");
    const auto cut = directory_.write("cut.jpg", contentOf(sample).substr(0, 5000));
    const auto ended = run({"check", "--json", path("missing.jpg"), text, sample, cut});
    EXPECT_EQ(ended.exitCode, 5);
    const auto lines = ended.lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[2]["faces"], 1) << "the good one among the bad";
    for (const auto& [line, image] : {std::pair(0U, path("missing.jpg").string()), {1U, text}, {3U, cut}}) {
        EXPECT_EQ(lines[line]["image"], image);
        EXPECT_THAT(lines[line].at("error").get<std::string>(), HasSubstr(image));
    }
    EXPECT_THAT(run({"check", text}).err, HasSubstr("text.jpg"));
}

TEST_F(SelvioCapture, CapturesAndShowsTheRecord) {
    const auto ended =
        run(capture(kSamples / "scripts/steady.json", {"--countdown-time", "2", "--image-quality", "80"}));
    ASSERT_EQ(ended.exitCode, 0) << ended.err;
    EXPECT_THAT(results(), ElementsAre("record.json", "selfie.jpg"));
    EXPECT_EQ(record()["SelvioResultCode"], "SuccessVideo");
    EXPECT_EQ(record()["Autocapture"], "1");
    EXPECT_EQ(record()["Parameters"]["ImageQuality"], "80");

    std::vector<std::string> events;
    double time = 0.0;
    for (const auto& line : ended.lines()) {
        if (events.empty() || events.back() != line["event"]) events.push_back(line["event"]);
        EXPECT_GE(line["time"].get<double>(), time);
        time = line["time"].get<double>();
    }
    EXPECT_THAT(events, testing::IsSupersetOf({"startCountdown", "detectionResults"}));
    EXPECT_EQ(events.back(), "detectionSuccess");
    EXPECT_EQ(ended.lines().back()["statuses"], json({14}));
    EXPECT_GE(time, 2.0) << "the countdown's two seconds";

    for (const char* file : {"out/selfie.jpg", "out/record.json"}) {
        EXPECT_EQ(fs::status(path(file)).permissions(), fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_EQ(run({"show", "--json", path(file)}).out, contentOf(path("out/record.json")));
        const auto shown = run({"show", path(file)});
        EXPECT_EQ(shown.exitCode, 0);
        EXPECT_THAT(shown.out, ContainsRegex("\n  SelvioResultCode +SuccessVideo\n"));
        EXPECT_THAT(shown.out, ContainsRegex("\n  ImageQuality +80  \\(default 95\\)\n"));
        EXPECT_THAT(shown.out, ContainsRegex("\n +[0-9]+\\.[0-9]{3} s  FHS  Stay like that\n"));
    }
    EXPECT_EQ(run({"show", path("out/selfie.jpg")}, {}, "/dev/full").exitCode, 6);
    const auto selfie = JpegPngImageLoader().loadImage(path("out/selfie.jpg"));
    ASSERT_TRUE(selfie);
    EXPECT_EQ(selfie.value()->height(), 1280);
}

TEST_F(SelvioCapture, EndsWithAPictureWhenTheCountdownIsBrokenOff) {
#ifdef __SANITIZE_THREAD__
    constexpr int kSlower = 3;  // a frame's analysis takes longer than a face is lost
#else
    constexpr int kSlower = 1;
#endif
    const auto seconds = [](double time) { return std::to_string(time * kSlower); };
    const std::string face =
        R"("visible": true, "center": [0.5, 0.46], "jawWidth": 0.63, "second": null, "noise": 1.5)";
    const std::pair<int, std::string> disturbances[] = {
        {1, R"("visible": false, "hold": )" + seconds(0.1)},
        {2,
         R"("center": [0.26, 0.45], "jawWidth": 0.37, "second": {"center": [0.76, 0.45], "jawWidth": 0.37}, "hold": )" +
             seconds(0.5)}};
    for (const auto& [status, disturbance] : disturbances) {
        const auto script =
            directory_.write("script.json", R"({"keyFrames": [{"at": 0, "hold": )" + seconds(1.5) + ", " + face +
                                                R"(}, {"at": )" + seconds(1.5) + ", " + disturbance + R"(}, {"at": )" +
                                                seconds(2.0) + ", " + face + "}]}");
        const auto ended = run(capture(script, {"--countdown-time", std::to_string(std::min(2 * kSlower, 5)),
                                                "--timeout", std::to_string(10 * kSlower)}));
        EXPECT_EQ(ended.exitCode, 0) << ended.err << ended.out;
        EXPECT_THAT(ended.out, HasSubstr("\"statuses\":[" + std::to_string(status) + "]"));
        for (const auto& line : ended.lines())
            EXPECT_EQ(line["statuses"].empty(), line["event"] == "startCountdown") << line;
    }
}

TEST_F(SelvioCapture, KeepsTheRecordingHoweverTheCaptureEnds) {
    for (const bool interrupt : {false, true}) {
        bool done = false;
        const auto script = interrupt ? emptyScene() : kSamples / "scripts/steady.json";
        const auto ended =
            run(capture(script, {"--record-video", "--record-audio"}), [&](const std::string& out, pid_t program) {
                if (std::ranges::count(out, '\n') <= 5 || std::exchange(done, true)) return;
                directory_.write("SelvioFacialCapture/Documents/selvio_left over.mp4", "x");
                if (interrupt) ::kill(program, SIGINT);
            });
        EXPECT_EQ(ended.exitCode, interrupt ? 3 : 0) << ended.err;
        EXPECT_EQ(record()["Parameters"]["RecordVideo"], "1");
        const auto recording = contentOf(path("out/recording.mp4"));
        EXPECT_THAT(recording.substr(0, 16), HasSubstr("ftyp"));
        EXPECT_LT(recording.find("moov"), recording.find("mdat"));
        EXPECT_TRUE(fs::is_empty(path("SelvioFacialCapture/Documents")))
            << "neither the component's own copy nor what was left over";
        fs::remove_all(path("out"));
    }
}

TEST_F(SelvioCapture, SaysSoonThatARecordingWasLost) {
    std::optional<std::chrono::steady_clock::time_point> interrupted;
    const auto ended = run(capture(emptyScene(), {"--record-video"}), [&](const std::string& out, pid_t program) {
        if (std::ranges::count(out, '\n') <= 5 || interrupted) return;
        for (const auto& entry : fs::directory_iterator(path("SelvioFacialCapture/Documents"))) fs::remove_all(entry);
        interrupted = std::chrono::steady_clock::now();
        ::kill(program, SIGINT);
    });
    EXPECT_EQ(ended.exitCode, 3);
    EXPECT_THAT(ended.err, HasSubstr("the recording could not be finished"));
    EXPECT_THAT(results(), ElementsAre("record.json"));
    ASSERT_TRUE(interrupted);
    EXPECT_LT(std::chrono::steady_clock::now() - *interrupted, std::chrono::seconds(14))
        << "no wait for what cannot come";
}

TEST_F(SelvioCapture, EndsWhenFramesStop) {
    ASSERT_EQ(run(capture(kSamples / "scripts/steady.json", {"--record-video"})).exitCode, 0);
    fs::rename(path("out/recording.mp4"), path("short.mp4"));
    fs::remove_all(path("out"));
    const auto ended = run({"--json", "--source", "video:" + path("short.mp4").string(), "--countdown-time", "5",
                            "--record-video", "--out", path("out")});
    EXPECT_EQ(ended.exitCode, 4);
    EXPECT_THAT(ended.err, HasSubstr("The camera has stopped delivering frames"));
    EXPECT_EQ(ended.lines().back()["event"], "detectionCancelled");
    EXPECT_THAT(results(), ElementsAre("record.json", "recording.mp4")) << "what was recorded until then";
}

TEST_F(SelvioCapture, TakesThePictureInManualModeWithoutATerminal) {
    const auto ended = run(capture(kSamples / "scripts/steady.json", {"--mode", "manual"}));
    ASSERT_EQ(ended.exitCode, 0) << ended.err;
    EXPECT_EQ(record()["SelvioResultCode"], "SuccessStillCamera");
    EXPECT_EQ(record()["Autocapture"], "0");
    for (const char* code : {"SS", "ST"}) EXPECT_THAT(record()["UXP"].dump(), HasSubstr(code));
}

TEST_F(SelvioCapture, GuidesOnATerminalAndTakesThePictureWhenEnterIsPressed) {
    onTerminal_ = true;
    bool entered = false;
    const auto ended =
        run({"--mode", "manual", "--script", emptyScene(), "--out", path("out")}, [&](const std::string& out, pid_t) {
            if (!entered && out.find("\r\033[KShow your face to the camera") != std::string::npos)
                entered = ::write(terminal_, "\n", 1) == 1;
        });
    EXPECT_TRUE(entered) << ended.out;
    EXPECT_EQ(ended.exitCode, 0) << ended.out;
    EXPECT_THAT(ended.out, HasSubstr("there is no display"));
    EXPECT_THAT(results(), ElementsAre("record.json", "selfie.jpg"));
    EXPECT_EQ(record()["SelvioResultCode"], "SuccessStillCamera");
}

TEST_F(SelvioCapture, LeavesTheRecordWhenItIsInterruptedOrTimesOut) {
    for (const int signal : {SIGINT, SIGTERM, 0}) {
        bool sent = signal == 0;  // then the time runs out
        const auto ended =
            run(capture(emptyScene(), {"--timeout", sent ? "3" : "30"}), [&](const std::string&, pid_t program) {
                if (!std::exchange(sent, true)) ::kill(program, signal);
            });
        EXPECT_EQ(ended.exitCode, 3) << ended.err;
        EXPECT_EQ(ended.lines().back()["event"], "detectionCancelled");
        EXPECT_THAT(results(), ElementsAre("record.json"));
        EXPECT_EQ(record()["SelvioResultCode"], "Cancelled");
        EXPECT_THAT(ended.err, HasSubstr(signal == 0 ? "Timed out" : "Cancelled"));
        fs::remove_all(path("out"));
    }
}

TEST_F(SelvioCapture, EndsWithTheCodeOfWhatIsMissing) {
    directory_.write("file", "x");
    fs::copy_file(kSamples / "astronaut.jpg", path("alone.jpg"));
    directory_.write("bad.json", "{");
    directory_.write("damaged.json", R"({"UXP":[{"FS")");
    const auto odd =
        directory_.write("odd.json", R"({"OS":"\u001B[2J","UXP":[5,{"FS":"x"},{"??":[]}],"Parameters":7})");
    EXPECT_THAT(run({"show", odd}).out, testing::AllOf(HasSubstr("?[2J"), HasSubstr("Very good")));
    struct Row {
        std::vector<std::string> arguments;
        int exitCode;
        std::string message;
    };
    const std::vector<Row> rows = {
        {{"--out", path("file/out"), "--source", "simulated"}, 6, "file/out"},
        {{"--out", path("out"), "--source", "camera:no such camera"}, 4, "camera"},
        {{"--out", path("out"), "--photo", path("none.jpg")}, 5, "none.jpg"},
        {{"--out", path("out"), "--photo", path("alone.jpg")}, 5, "alone.json"},
        {{"--out", path("out"), "--script", path("bad.json")}, 5, "bad.json"},
        {{"--out", path("out"), "--source", "video:" + path("none.mp4").string()}, 5, "none.mp4"},
        {{"--out", path("out"), "--source", "video:" + path("file").string()}, 5, "file: cannot be played"},
        {{"--out", path("out"), "--source", "video:" + path("").string()}, 5, "cannot be read as a file"},
        {{"show", path("none.jpg")}, 5, "none.jpg"},
        {{"show", path("file")}, 5, "neither a JPEG"},
        {{"show", path("damaged.json")}, 5, "damaged"},
        {{"show", kSamples / "astronaut.jpg"}, 5, "no data record"},
        {{"show", path("")}, 5, path("")},
    };
    for (const auto& row : rows) {
        const auto ended = run(row.arguments);
        EXPECT_EQ(ended.exitCode, row.exitCode) << row.message;
        EXPECT_THAT(ended.err, HasSubstr(row.message));
        EXPECT_EQ(ended.out, "");
    }
}

}  // namespace
}  // namespace selvio
