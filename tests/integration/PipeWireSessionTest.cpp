// The host program on a real capture stack: a PipeWire of its own, a published camera that shows a person, a published
// microphone.
#include <gmock/gmock.h>

#include <filesystem>

#include "support/MediaProbe.h"
#include "support/SampleScene.h"

namespace {

using namespace selvio;

using ::testing::HasSubstr;

// Waits, within limits, for the two devices, lists them, and captures. Everything published ends with the shell.
constexpr const char* kSession = R"(
set -u
[ -n "${SELVIO_PRIVATE_PIPEWIRE:-}" ] || { echo UNAVAILABLE; exit; }
ffmpeg -v error -f lavfi -i sine=frequency=440:duration=60 -ar 48000 -ac 1 "$OUT/tone.wav"
gst-launch-1.0 -q videotestsrc is-live=true ! video/x-raw,format=NV12,width=720,height=1280,framerate=30/1 ! \
    gdkpixbufoverlay location="$OUT/person.jpg" ! pipewiresink mode=provide \
    stream-properties='props,media.class=Video/Source,node.name=Test,node.description=TestCamera' & camera=$!
pw-cat -p --target=0 -P '{media.class=Audio/Source,node.name=Tone,node.description=Tone}' "$OUT/tone.wav" & tone=$!
trap 'kill $camera $tone' EXIT
for attempt in $(seq 100); do
    "$PROGRAM" devices --json > "$OUT/devices.json" 2>/dev/null
    grep -q TestCamera "$OUT/devices.json" && grep -q '"Tone"' "$OUT/devices.json" && break
done
"$PROGRAM" --json --source camera:TestCamera --record-video --record-audio --countdown-time 2 --timeout 20 \
    --out "$OUT/x" > /dev/null 2> "$OUT/errors.txt"
echo $? > "$OUT/code"
)";

TEST(PipeWireSession, ACaptureEndsWithPhotographRecordAndRecording) {
    const TemporaryDirectory directory;
    const std::filesystem::path &out = directory.path(), recording = out / "x/recording.mp4";
    const auto person = sampleScene(oneFace(0.5, 0.46, 0.63))->frame({}, 720, 1280, kPixelFormat32BGRA);
    directory.write("person.jpg", LibjpegImageCodec().encodeJpeg({person}, 0.95).value());
    ::setenv("OUT", out.c_str(), 1);
    ::setenv("PROGRAM", SELVIO_PROGRAM, 1);
    ::setenv("XDG_DATA_HOME", (out / "data").c_str(), 1);
    const std::string said =
        outputOf(std::string(SELVIO_PIPEWIRE_SCRIPT) + " bash '" + directory.write("session.sh", kSession) + "'");
    if (said.starts_with("UNAVAILABLE")) GTEST_SKIP() << said;

    EXPECT_EQ(contentOf(out / "code"), "0\n") << contentOf(out / "errors.txt");
    EXPECT_THAT(contentOf(out / "x/record.json"), HasSubstr("SuccessVideo"));
    EXPECT_GT(std::filesystem::file_size(out / "x/selfie.jpg"), 20000U);
    EXPECT_EQ(streamOf(recording, "v", "codec_name,width,height"), "h264,720,1280");
    EXPECT_EQ(streamOf(recording, "a", "codec_name"), "aac");
    EXPECT_GT(secondsOf(recording, "v"), 1.5);
    // How many there are depends on how busy the machine is.
    EXPECT_GT(std::stoi("0" + streamOf(recording, "v", "nb_read_frames")), 5);
    const auto endOf = [&](const char* kind) {
        return secondsOf(recording, kind) + std::stod("0" + streamOf(recording, kind, "start_time"));
    };
    EXPECT_NEAR(endOf("a"), endOf("v"), 0.25);
    EXPECT_TRUE(std::filesystem::is_empty(out / "data/SelvioFacialCapture/Documents"));  // delivered, then deleted
}

}  // namespace
