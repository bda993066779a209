#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <SelvioFacialCapture/linux/Device.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>

namespace {

using namespace selvio;
using test::TemporaryDirectory;
namespace fs = std::filesystem;

TEST(LinuxScreen, takesTheConnectedDisplayInPortrait) {
    struct Display {
        const char* name;
        const char* status;
        const char* modes;
    };
    const std::pair<std::vector<Display>, Size> table[] = {
        {{}, {1080, 1920}},
        {{{"card0-HDMI-A-1", "connected\n", "2560x1440\n1920x1080\n"}}, {1440, 2560}},
        {{{"card0-DP-1", "connected\n", "2560x1440\n"}, {"card0-eDP-1", "connected\n", "1200x1920\n"}}, {1200, 1920}},
        {{{"card0-DP-1", "connected\n", ""}, {"card0-DP-2", "connected\n", "1920x1080i\n"}}, {1080, 1920}},
        {{{"card0-DP-1", "connected\n", "0x0\n"},
          {"card0-DP-2", "connected\n", "x\n"},
          {"card0-DP-3", "connected\n", "720x400\n"}},
         {400, 720}},
    };
    for (const auto& [displays, size] : table) {
        const TemporaryDirectory root;
        for (const Display& display : displays) {
            root.write(std::string(display.name) + "/status", display.status);
            root.write(std::string(display.name) + "/modes", display.modes);
        }
        EXPECT_EQ(LinuxScreen(root.path()).bounds(), size) << displays.size();
    }
    EXPECT_EQ(LinuxScreen(fs::path("/nowhere")).bounds(), LinuxScreen::kDefaultSize);
}

TEST(LinuxFileManager, documentsFollowTheEnvironmentAndArePrivate) {
    const TemporaryDirectory root;
    const fs::path home = root.path() / "home";
    const std::pair<std::string, fs::path> table[] = {{(root.path() / "data").string(), root.path() / "data"},
                                                      {"", home / ".local/share"},
                                                      {"relative", home / ".local/share"}};
    setenv("HOME", home.c_str(), 1);
    for (const auto& [variable, parent] : table) {
        setenv("XDG_DATA_HOME", variable.c_str(), 1);
        const LinuxFileManager files;
        EXPECT_FALSE(fs::exists(parent / "SelvioFacialCapture")) << "made on demand only";
        const fs::path documents = files.documentsDirectory();
        EXPECT_EQ(documents.parent_path(), parent / "SelvioFacialCapture" / "Documents");
        EXPECT_EQ(files.documentsDirectory(), documents);
        for (const fs::path& made : {documents, documents.parent_path()}) {
            struct stat status {};
            ASSERT_EQ(stat(made.c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 0777, 0700u);
        }
        fs::remove_all(parent);
    }
}

// What others are writing is left alone; what a process left behind that ended early, like the child here, goes.
TEST(LinuxFileManager, onlyLeftoversOfTheDeadAreRemoved) {
    const TemporaryDirectory root;
    root.write("selvio_left over.mp4", "x");
    root.write("selvio_other.txt", "x");
    root.write("selvio-process-other/file", "x");
    std::optional<LinuxFileManager> files(root.path());
    const fs::path own = files->documentsDirectory();
    EXPECT_FALSE(fs::exists(root.path() / "selvio_left over.mp4"));
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
    EXPECT_TRUE(fs::exists(mine));
    const auto entries = [&] { return std::distance(fs::directory_iterator(root.path()), fs::directory_iterator()); };
    EXPECT_EQ(entries(), 4) << "two that are no recordings, and those of the two processes";
    {
        const LinuxFileManager next(root.path());
        EXPECT_EQ(next.contentsOfDirectory(next.documentsDirectory()).value().size(), 0u);
        EXPECT_EQ(entries(), 4) << "the child's has gone";
        EXPECT_TRUE(fs::exists(mine));
    }
    EXPECT_EQ(entries(), 3) << "an empty one goes with its manager";
    files.reset();
    const LinuxFileManager last(root.path());
    (void)last.documentsDirectory();
    EXPECT_FALSE(fs::exists(mine));
    EXPECT_TRUE(fs::exists(root.path() / "selvio_other.txt"));
    EXPECT_TRUE(fs::exists(root.path() / "selvio-process-other/file"));
    fs::remove_all(last.documentsDirectory());
    EXPECT_TRUE(fs::is_directory(last.documentsDirectory())) << "made anew";
}

TEST(LinuxFileManager, aDirectoryThatCannotBeMadeIsLogged) {
    const TemporaryDirectory root;
    const std::string file = root.write("file", "x");
    LogCapture log;
    const LinuxFileManager files(fs::path(file) / "Documents");
    EXPECT_EQ(files.documentsDirectory(), fs::path(file) / "Documents") << "whose users then say why they fail";
    EXPECT_THAT(log.take(), testing::ElementsAre(testing::HasSubstr("Couldn't make the documents directory " + file)));
}

TEST(LinuxFileManager, saysWhyItCannot) {
    const TemporaryDirectory root;
    LinuxFileManager files(root.path());
    const std::string one = root.write("one", "1");
    EXPECT_EQ(files.readFile(root.write("two", "")).value(), std::vector<std::uint8_t>{});
    EXPECT_FALSE(files.removeItem(one));
    for (const auto& error :
         {*files.removeItem(one), files.readFile(one).error(), files.contentsOfDirectory(one).error()}) {
        EXPECT_EQ(error.localizedDescription, one + ": No such file or directory");
    }
    EXPECT_EQ(files.readFile(root.path()).error().localizedDescription, root.path().string() + ": Is a directory");
    EXPECT_EQ(files.readFile("/dev/zero").error().localizedDescription, "/dev/zero: not a regular file");
}

}  // namespace
