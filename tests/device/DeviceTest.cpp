#include "support/LogCapture.h"
#include "support/MediaProbe.h"

#include <SelvioFacialCapture/linux/Device.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <map>

namespace {

using namespace selvio;
namespace fs = std::filesystem;

TEST(LinuxDevice, ReturnsTheVersionOfTheSystemWithItsPointRelease) {
    const std::pair<std::map<std::string, std::string>, std::string> rows[] = {
        {{{"etc/os-release", "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nVERSION=\"12 (bookworm)\"\n"},
          {"etc/debian_version", "12.11\n"},
          {"usr/lib/os-release", "VERSION_ID=9\n"}},
         "12.11"},
        {{{"etc/os-release", "VERSION_ID='22.04'\n"}, {"etc/debian_version", "bookworm/sid\n"}}, "22.04"},
        {{{"etc/os-release", "ID=arch\nBUILD_ID=rolling\n"}, {"etc/debian_version", ".1\n"}}, ""}};
    for (const auto& [files, version] : rows) {
        const TemporaryDirectory root;
        for (const auto& [name, text] : files) root.write(name, text);
        EXPECT_EQ(LinuxDevice({}, root.path()).systemVersion(), version);
    }
    const LinuxDevice device([] { return DeviceOrientation::LandscapeLeft; });
    EXPECT_EQ(device.orientation(), DeviceOrientation::LandscapeLeft);
    EXPECT_EQ(device.machineName() + "\n", outputOf("uname -m"));
}

TEST(LinuxScreen, TakesPositiveSizesOnly) {
    LogCapture log;
    LinuxScreen screen;
    EXPECT_EQ(screen.bounds(), LinuxScreen::kDefaultSize);
    screen.setBounds({400, 720});
    for (const Size size : {Size{0, 720}, Size{400, -1}, Size{NAN, 720}, Size{400, INFINITY}}) screen.setBounds(size);
    EXPECT_EQ(screen.bounds(), (Size{400, 720}));
    EXPECT_EQ(log.take().size(), 4U);
}

TEST(LinuxFileManager, DocumentsFollowTheEnvironmentAndArePrivate) {
    const TemporaryDirectory root;
    const fs::path usual = root.path() / "home/.local/share";
    setenv("HOME", (root.path() / "home").c_str(), 1);
    for (const auto& [variable, parent] :
         {std::pair{(root.path() / "data").string(), root.path() / "data"}, {"", usual}, {"relative", usual}}) {
        setenv("XDG_DATA_HOME", variable.c_str(), 1);
        const LinuxFileManager files;
        EXPECT_FALSE(fs::exists(parent / "SelvioFacialCapture")) << "made on demand only";
        const fs::path documents = files.documentsDirectory();
        EXPECT_EQ(documents.parent_path(), parent / "SelvioFacialCapture" / "Documents");
        EXPECT_EQ(files.documentsDirectory(), documents);
        for (const fs::path& made : {documents, documents.parent_path()})
            EXPECT_EQ(fs::status(made).permissions(), fs::perms::owner_all);
        fs::remove_all(parent);
    }
}

// What others are writing is left alone; what a process left behind that ended early, like the child here, goes.
TEST(LinuxFileManager, OnlyLeftoversOfTheDeadAreRemoved) {
    const TemporaryDirectory root;
    root.write("selvio_left over.mp4", "x");
    root.write("selvio_other.txt", "x");
    const LinuxFileManager files(root.path());
    const fs::path own = files.documentsDirectory();
    const fs::path mine = own / "selvio_mine.mp4";
    std::ofstream(mine) << "running";
    const pid_t child = fork();
    if (child == 0) {
        const LinuxFileManager its(root.path());
        std::ofstream(its.documentsDirectory() / "selvio_its.part.mp4") << "half";
        _exit(its.documentsDirectory() == own ? 1 : 0);
    }
    int result = -1;
    ASSERT_EQ(waitpid(child, &result, 0), child);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(entriesIn(root.path()), 3U) << "what is no recording, and those of the two processes";
    {
        const LinuxFileManager next(root.path());
        EXPECT_EQ(next.contentsOfDirectory(next.documentsDirectory()).value().size(), 0U);
        EXPECT_EQ(entriesIn(root.path()), 3U) << "the child's has gone";
    }
    EXPECT_TRUE(fs::exists(mine));
    EXPECT_EQ(entriesIn(root.path()), 2U) << "an empty one goes with its manager";
}

TEST(LinuxFileManager, SaysWhyItCannot) {
    const TemporaryDirectory root;
    LinuxFileManager files(root.path());
    const std::string one = root.write("one", "1"), missing = one + ": No such file or directory";
    LogCapture log;
    EXPECT_EQ(LinuxFileManager(one + "/Documents").documentsDirectory(), one + "/Documents") << "whose users say why";
    EXPECT_THAT(log.take(), testing::ElementsAre(testing::HasSubstr("Couldn't make the documents directory " + one)));
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int nextDescriptor = dup(STDERR_FILENO);
    close(nextDescriptor);
    const rlimit none{static_cast<rlim_t>(nextDescriptor), limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    alarm(10);  // rather than directories until the disk is full
    EXPECT_EQ(files.documentsDirectory(), root.path());
    alarm(0);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_THAT(log.take(), testing::ElementsAre(testing::HasSubstr("Too many open files")));
    EXPECT_EQ(entriesIn(root.path()), 1U) << "what could not be locked has gone";
    EXPECT_FALSE(files.removeItem(one));
    EXPECT_EQ(files.removeItem(one)->localizedDescription, missing);
    EXPECT_EQ(files.contentsOfDirectory(one).error().localizedDescription, missing);
    EXPECT_EQ(files.readFile("/dev/zero").error().localizedDescription, "/dev/zero: not a regular file");
}

}  // namespace
