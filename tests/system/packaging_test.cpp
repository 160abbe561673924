// cmake --install into a staging directory: the systemd user unit, the D-Bus activation file and the
// interface's introspection XML land where the user's service manager and bus look for them.
#include <sys/stat.h>

#include <filesystem>
#include <regex>

#include "dbus/dbus_test_env.h"
#include "support/ffprobe.h"

namespace
{

using VideodTest::ReadFile;

TEST(PackagingFiles, AreInstalledIntoAStagingDirectoryAndAcceptedBySystemd)
{
    char pattern[] = "/tmp/videod-stage-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string stage = pattern;
    const std::string build = getenv("VIDEOD_BINARY_DIR");
    std::string out;
    std::string err;
    ASSERT_TRUE(GstTest::RunProgram({ "env", "DESTDIR=" + stage, "cmake", "--install", build }, &out, &err))
        << out << err;

    const std::string cache = ReadFile(build + "/CMakeCache.txt");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(cache, match, std::regex("CMAKE_INSTALL_PREFIX:PATH=([^\n]*)")));
    const std::string prefix = match[1];
    const std::string root = stage + prefix;

    const std::string binary = root + "/bin/videod";
    struct stat info {
    };
    ASSERT_EQ(stat(binary.c_str(), &info), 0) << binary;
    EXPECT_TRUE(info.st_mode & S_IXUSR);

    const std::string unitPath = root + "/lib/systemd/user/videod.service";
    const std::string unit = ReadFile(unitPath);
    EXPECT_NE(unit.find("\nType=dbus\n"), std::string::npos) << unit;
    EXPECT_NE(unit.find("\nBusName=com.tarnwell.common.Video1\n"), std::string::npos) << unit;
    EXPECT_NE(unit.find("\nExecStart=" + prefix + "/bin/videod\n"), std::string::npos) << unit;

    const std::string activation
        = ReadFile(root + "/share/dbus-1/services/com.tarnwell.common.Video1.service");
    EXPECT_NE(activation.find("[D-BUS Service]\n"), std::string::npos) << activation;
    EXPECT_NE(activation.find("\nName=com.tarnwell.common.Video1\n"), std::string::npos) << activation;
    EXPECT_NE(activation.find("\nExec=" + prefix + "/bin/videod\n"), std::string::npos) << activation;
    EXPECT_NE(activation.find("\nSystemdService=videod.service\n"), std::string::npos) << activation;

    const std::string xmlPath = root + "/share/dbus-1/interfaces/com.tarnwell.common.Video1.Control.xml";
    EXPECT_TRUE(GstTest::RunProgram({ "xmllint", "--noout", xmlPath }, &out, &err)) << err;
    EXPECT_EQ(ReadFile(xmlPath),
        ReadFile(
            std::string(getenv("VIDEOD_SOURCE_DIR")) + "/packaging/com.tarnwell.common.Video1.Control.xml"));

    // systemd judges the unit as the service manager will once it is installed: its ExecStart then
    // names the staged binary's final place, so the check reads the staged copy there.
    const std::string check = stage + "/check";
    std::filesystem::create_directories(check);
    std::string staged = unit;
    staged.replace(
        staged.find("ExecStart=" + prefix), std::string("ExecStart=" + prefix).size(), "ExecStart=" + root);
    std::ofstream(check + "/videod.service") << staged;
    EXPECT_TRUE(GstTest::RunProgram(
        { "systemd-analyze", "verify", "--man=no", check + "/videod.service" }, &out, &err))
        << out << err;

    std::filesystem::remove_all(stage);
}

} // namespace
