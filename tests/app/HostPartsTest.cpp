// The host program's parts, without a process, a camera or a clock.
#include "CommandLine.h"
#include "Countdown.h"
#include "FrameWatch.h"
#include "RunOutput.h"
#include "Texts.h"
#include "support/ManualQueue.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <set>
#include <sstream>

namespace selvio::app {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

std::variant<Command, ExitCode> parse(const std::string& line) {
    std::istringstream words(line);
    return parseCommandLine({std::istream_iterator<std::string>(words), {}});
}

TEST(CommandLine, RefusesWhatItDoesNotUnderstandAndSaysWhy) {
    for (const auto& [line, message] : {
             std::pair("--timeout 2", "in range 3 to 30"),
             {"--min-fill 700 --max-fill 799", "at least 100 more than --min-fill"},
             {"--source webcam", "none of simulated, camera, camera:NAME, video:PATH"},
             {"--source camera:", "none of"},
             {"--source camera --photo a.jpg", "--photo: belongs to --source simulated"},
             {"--source video:a.mp4 --script a.json", "--script: belongs to --source simulated"},
             {"check - a.jpg", "stands alone"},
             {"--record-video=maybe", "--record-video takes no value\n"},
             {"--no-preview=99999999999999999999", "--no-preview takes no value\n"},
             {"check --json=x a.jpg", "--json takes no value\n"},
         }) {
        testing::internal::CaptureStderr();
        EXPECT_THAT(parse(line), testing::VariantWith<ExitCode>(ExitCode::Usage)) << line;
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(message)) << line;
    }
}

TEST(CommandLine, PassesEveryCaptureParameterOn) {
    auto expected = SelvioFacialCaptureParameters().toDictionary();
    std::istringstream rows(
        "--mode=manual Mode 1  --timeout=30 Timeout 30  --min-fill=600 MinFill 600  --max-fill=750 MaxFill 750 "
        "--roll=0 Roll 0  --pitch=1000 Pitch 1000  --yaw=501 Yaw 501  --image-quality=5 ImageQuality 5 "
        "--select-on-smile SelectOnSmile 1  --countdown-time=0 CountdownTime 0  --record-video RecordVideo 1 "
        "--record-audio RecordAudio 1  --no-show-recording-ui ShowRecordingUI 0  --video-quality=100 VideoQuality 100");
    std::string words;
    for (std::string option, key, value; rows >> option >> key >> value;) {
        words += " " + option;
        EXPECT_NE(std::exchange(expected.at(key), value), value) << "no default, and each once";
        const auto outcome = parse(words);
        EXPECT_EQ(std::get<RunOptions>(std::get<Command>(outcome)).parameters->toDictionary(), expected) << option;
    }
    EXPECT_EQ(expected.size(), 14U);
    testing::internal::CaptureStderr();
    const auto soundAlone = std::get<RunOptions>(std::get<Command>(parse("run --record-audio")));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("has no effect without --record-video"));
    EXPECT_FALSE(soundAlone.parameters->cameraParameters()->recordAudio());
}

TEST(Countdown, FollowsWhatIsReported) {
    const auto queue = std::make_shared<ManualQueue>();
    using Calls = std::vector<std::int64_t>;  // the seconds left; 0: finished
    Calls calls;
    const auto countdown = std::make_shared<Countdown>(
        queue, 2, [&](std::int64_t left) { calls.push_back(left); }, [&] { calls.push_back(0); });
    // Announcements, reports of the countdown's status and of another; so much time; and what is told until then.
    for (const auto& [events, time, told] :
         {std::tuple("oac", 1900ms, Calls{2, 1}),
          {"o", 10000ms, {}},     // the face was lost
          {"c", 500ms, {2}},      // without a new announcement too
          {"a", 1000ms, {2, 1}},  // replaces the one that runs, whose steps must not count along
          {"c", 1000ms, {0}},
          {"coca", 10000ms, {}}}) {  // the picture has been asked for
        for (const char event : std::string(events)) {
            queue->async([&countdown, event] {
                if (event == 'a') return countdown->start();
                countdown->follow(event == 'c' ? SelvioFacialCaptureStatusCountdown
                                               : SelvioFacialCaptureStatusFaceNotFound);
            });
        }
        queue->runAll();
        queue->advance(time);
        EXPECT_EQ(std::exchange(calls, {}), told) << events;
    }
}

TEST(FrameWatch, TellsASlowStartFromASilentCameraAndBothFromAProcessThatWasHeldUp) {
    using enum FrameWatch::State;
    FrameWatch watch(100s);
    for (auto time = 101s; time <= 110s; ++time) EXPECT_EQ(watch.stateAt(time), Flowing);
    EXPECT_EQ(watch.stateAt(110s + 1ns), NeverCame);
    watch.noteFrame(110s);
    EXPECT_EQ(watch.stateAt(111s), Flowing);
    EXPECT_EQ(watch.stateAt(112s), Flowing);
    EXPECT_EQ(watch.stateAt(112s + 1ns), Stopped);
    for (const auto time : {120s, 121s, 122s}) EXPECT_EQ(watch.stateAt(time), Flowing);
    EXPECT_EQ(watch.stateAt(122s + 1ns), Stopped);
}

TEST(Texts, ExistForEveryKeyInBothLanguagesAsTheGuideListsThem) {
    std::set<std::string> texts;
    const std::string guide = contentOf(SELVIO_DOCS "/guidance-texts.md");
    for (std::int64_t status = 0; status <= 14; ++status) {
        const auto key = SelvioFacialCaptureResults::localizeKeyFrom(static_cast<SelvioFacialCaptureStatus>(status));
        std::string row = "\n| " + std::to_string(status) + " | `" + *key + "` |";
        for (const auto language : {Language::English, Language::German})
            row += " " + *texts.insert(textForKey(*key, language).value()).first + " |";
        EXPECT_THAT(guide, HasSubstr(row + "\n"));
    }
    EXPECT_EQ(texts.size(), 30U);
    EXPECT_FALSE(textForKey("selvio_facial_capture_status_other", Language::English));
}

TEST(Texts, FollowTheFirstLocaleVariableThatSaysSomething) {
    for (const auto& [all, messages, lang, language] : {std::tuple{"", "", "de_AT.UTF-8", Language::German},
                                                        {"", "de@euro", "en_GB", Language::German},
                                                        {"C", "de_DE", "de_DE", Language::English},
                                                        {"", "", "den_XX", Language::English}}) {
        ::setenv("LC_ALL", all, 1);
        ::setenv("LC_MESSAGES", messages, 1);
        ::setenv("LANG", lang, 1);
        EXPECT_EQ(languageOfLocale(), language) << all << '/' << messages << '/' << lang;
    }
}

TEST(PersonOutput, ChangesOneLineOnATerminalAndPrintsEachChangeElsewhere) {
    constexpr auto kCloser = SelvioFacialCaptureStatusMoveCloser, kStill = SelvioFacialCaptureStatusHoldStill;
    constexpr auto kCounting = SelvioFacialCaptureStatusCountdown;
    for (const bool terminal : {true, false}) {
        std::ostringstream stream;
        const auto output = makePersonOutput(stream, terminal, Language::English, "[REC] ");
        output->event({"detectionResults", 0.1, {kCloser, SelvioFacialCaptureStatusNotCentered}});
        for (const double time : {0.2, 0.3}) output->event({"detectionResults", time, {kCloser}, true});
        output->event({"startCountdown", 0.3, {}, true});
        output->event({"detectionResults", 0.4, {kStill}, true});
        output->countdown(2, true);
        output->event({"detectionResults", 0.4, {kCounting}, true});  // hides no number
        output->countdown(1, false);
        for (const auto status : {kStill, kCounting}) output->event({"detectionResults", 0.5, {status}});
        output->event({"detectionCancelled", 0.5, {kStill}});
        output->message("end");
        EXPECT_EQ(stream.str(), terminal ? "\r\033[KMove closer\r\033[K[REC] Move closer\r\033[K[REC] Hold still"
                                           "\r\033[K[REC] Stay like that … 2\r\033[KStay like that … 1"
                                           "\r\033[KHold still\r\033[KStay like that\nend\n"
                                         : "Move closer\n[REC] Move closer\n[REC] Hold still\n"
                                           "[REC] Stay like that … 2\nStay like that … 1\n"
                                           "Hold still\nStay like that\nend\n");
    }
}

}  // namespace
}  // namespace selvio::app
