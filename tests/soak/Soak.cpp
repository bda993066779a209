// Many short captures one after the other, each disturbed at random: late main queues, interrupts, faults, recordings.
//
//     soak CAPTURES [SEED]
//
// Prints what the process holds at every tenth of the way. Fails if that grows with the captures, or if one does not
// end.
#include "Session.h"
#include "support/FakeVision.h"
#include "support/Random.h"
#include "support/Resources.h"
#include "support/SampleScene.h"
#include "support/TemporaryDirectory.h"

#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include <malloc.h>
#include <array>
#include <cstdio>
#include <iostream>

namespace {

using namespace selvio;
using namespace std::chrono_literals;

constexpr auto kFrame = 33ms;
constexpr auto kHang = 5min;         // on a busy machine a capture takes its time
constexpr int kWithRecording = 200;  // one capture of so many; they take the longest
constexpr int kWithTrueVision = 200;

struct Silent final : app::RunOutput {
    void event(const app::RunEvent& event) override { ++events[event.name]; }
    void countdown(std::int64_t, bool) override {}
    void message(const std::string&) override {}
    std::map<std::string, long> events;
};

/// One capture and whoever disturbs it, as blocks on the main queue; whether it came to its end. A `full` one records
/// and looks for faces, and so warms up what libraries keep for good.
bool capture(unsigned seed, bool full, const std::shared_ptr<const SimulatedFrames>& frames,
             const std::filesystem::path& out, Silent& output) {
    Random random(seed);
    app::RunOptions options;
    options.out = out;
    options.parameters->setMode(random.oneIn(2) ? SelvioFacialCaptureModeManual : SelvioFacialCaptureModeAuto);
    auto& camera = *options.parameters->cameraParameters();
    const bool records = full || random.oneIn(kWithRecording);
    camera.setRecordVideo(records);
    camera.setRecordAudio(records && random.oneIn(2));

    const auto main = std::make_shared<MainQueue>();
    Platform platform = makeLinuxPlatform();
    platform.mainQueue = main;
    const auto system = useSimulatedCamera(platform, frames, {.pacing = SimulatedPacing::Manual});
    if (!full && !random.oneIn(kWithTrueVision))
        platform.makeSequenceRequestHandler = [] { return std::make_shared<FakeSequenceRequestHandler>(); };
    system->setFaults({.noCamera = random.oneIn(30),
                       .noMicrophone = random.oneIn(10),
                       .startFails = random.oneIn(30),
                       .dropEvery = random.oneIn(10) ? 3 : 0});
    if (random.oneIn(30)) system->setAccessAnswer(false);
    bool hasEnded = false;
    const auto ended = [&] { hasEnded = true, main->quit(); };
    const auto session = app::Session::make(platform, options, {}, output, app::Language::English, ended);

    std::chrono::nanoseconds time{0};
    int steps = random.below(12);
    const std::function<void()> disturb = [&] {
        if (hasEnded) return;
        if (steps-- == 0) return session->cancelByPerson();
        const int what = random.below(8);
        if (what == 0) {
            session->takePicture();
        } else if (what == 1) {
            std::this_thread::sleep_for(2ms);  // the main queue is late
        } else if (what == 2 && random.oneIn(8)) {
            system->setFaults({.deviceLost = true});
        } else {
            system->deliverFrameAt(time += kFrame);
        }
        main->asyncAfter(std::chrono::microseconds(random.below(1500)), disturb);
    };
    main->async([&] { session->begin(); });
    main->async(disturb);
    main->asyncAfter(kHang, [&] { main->quit(); });
    main->run();
    return hasEnded;
}

struct Held {
    Resources resources;
    std::size_t bytes = 0;  // allocated

    static Held now() {
        ::malloc_trim(0);
        return {Resources::now(), ::mallinfo2().uordblks};
    }
};

}  // namespace

int main(int argc, char** argv) {
    const int captures = argc > 1 ? std::atoi(argv[1]) : 0, seed = argc > 2 ? std::atoi(argv[2]) : 1;
    if (captures < 20) {
        std::cerr << "usage: soak CAPTURES [SEED], at least 20 captures\n";
        return 2;
    }
    setLogSink([](std::string_view) {});  // faults are logged by the thousand
    std::cerr.rdbuf(nullptr);             // and told to the person

    const auto frames = sampleScene(oneFace(0.5, 0.46, 0.63));
    const TemporaryDirectory directory;
    Silent output;
    std::printf("captures   allocated KiB   new blocks   descriptors   threads\n");
    std::array<Held, 11> held;
    for (int i = 0, tenth = 0; i <= captures; ++i) {
        if (i == static_cast<int>(static_cast<long>(captures) * tenth / 10)) {
            const auto& [resources, bytes] = held[static_cast<std::size_t>(tenth++)] = Held::now();
            std::printf("%8d %15zu %12ld %13zu %9zu\n", i, bytes / 1024, resources.blocks, resources.descriptors,
                        resources.threads);
            std::fflush(stdout);
        }
        if (i == captures) break;
        const unsigned own = static_cast<unsigned>(seed) * 1'000'003U + static_cast<unsigned>(i);
        if (!capture(own, i < 10, frames, directory.path(), output)) {
            std::printf("capture %d does not end\n", i);
            return 1;
        }
    }
    for (const auto& [name, count] : output.events) std::printf("%s: %ld\n", name.c_str(), count);

    // The first half is for warming up.
    const Held& before = held[5];
    const Held& after = held[10];
    const double half = captures / 2.0;
    const double bytes = (static_cast<double>(after.bytes) - static_cast<double>(before.bytes)) / half;
    const double blocks = static_cast<double>(after.resources.blocks - before.resources.blocks) / half;
    const bool grows = bytes > 32.0 || blocks > 0.5 || after.resources.descriptors > before.resources.descriptors + 2 ||
                       after.resources.threads > before.resources.threads + 4;
    std::printf("in the second half, a capture: %.1f bytes, %.3f blocks%s\n", bytes, blocks, grows ? ": grows" : "");
    return grows ? 1 : 0;
}
