#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <SelvioFacialCapture/linux/Device.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <map>

#include <cmath>

namespace {

using namespace selvio;
using test::TemporaryDirectory;
namespace fs = std::filesystem;

TEST(LinuxDevice, tellsTheVersionOfTheSystemWithItsPointRelease) {
    struct Row {
        std::map<std::string, std::string> files;
        std::string version;
    };
    const std::vector<Row> rows = {
        {{{"etc/os-release", "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nVERSION=\"12 (bookworm)\"\n"},
          {"etc/debian_version", "12.11\n"},
          {"usr/lib/os-release", "VERSION_ID=9\n"}},
         "12.11"},
        {{{"etc/os-release", "VERSION_ID='22.04'\n"}, {"etc/debian_version", "bookworm/sid\n"}}, "22.04"},
        {{{"etc/os-release", "VERSION_ID=1\n"}, {"etc/debian_version", "12.11\n"}}, "1"},
        {{{"usr/lib/os-release", "VERSION_ID=39"}}, "39"},
        {{{"etc/os-release", "ID=arch\nBUILD_ID=rolling\n"}, {"etc/debian_version", ".1\n"}}, ""},
        {{}, ""},
    };
    for (const Row& row : rows) {
        const TemporaryDirectory root;
        for (const auto& [name, text] : row.files) root.write(name, text);
        EXPECT_EQ(LinuxDevice({}, root.path()).systemVersion(), row.version) << &row - rows.data();
    }
    const LinuxDevice device([] { return DeviceOrientation::LandscapeLeft; });
    EXPECT_EQ(device.orientation(), DeviceOrientation::LandscapeLeft);
    EXPECT_EQ(LinuxDevice().orientation(), DeviceOrientation::Portrait);
    EXPECT_EQ(device.model(), "Linux");
    utsname kernel{};
    ASSERT_EQ(uname(&kernel), 0);
    EXPECT_EQ(device.machineName(), kernel.machine);
}

TEST(LinuxScreen, takesPositiveSizesOnly) {
    LogCapture log;
    LinuxScreen screen;
    EXPECT_EQ(screen.bounds(), (Size{1080, 1920}));
    screen.setBounds({400, 720});
    for (const Size size : {Size{0, 720}, Size{400, -1}, Size{NAN, 720}, Size{400, INFINITY}}) screen.setBounds(size);
    EXPECT_EQ(screen.bounds(), (Size{400, 720}));
    EXPECT_EQ(log.take().size(), 4u);
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
        EXPECT_EQ(documents, parent / "SelvioFacialCapture" / "Documents");
        struct stat status {};
        ASSERT_EQ(stat(documents.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0700u);
        fs::remove_all(parent);
    }
}

TEST(LinuxFileManager, aDirectoryThatCannotBeMadeIsLogged) {
    const TemporaryDirectory root;
    const std::string file = root.write("file", "x");
    LogCapture log;
    const LinuxFileManager files(fs::path(file) / "Documents");
    EXPECT_EQ(files.documentsDirectory(), fs::path(file) / "Documents");
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
