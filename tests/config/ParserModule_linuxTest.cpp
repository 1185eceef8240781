#include "config/ParserModule.h"

#include "config/ConfigProbe.h"
#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;

/// A search path with a relative directory is a Linux thing. The library's own path is relative then.
TEST(ParserModuleOfARelativeLibrary, IsFoundWhenTheProcessHasGoneElsewhere) {
    const std::string directory = makeTestDirectory();
    const std::filesystem::path module = std::filesystem::path(directory) / QVTP_PARSER_PATH;
    std::filesystem::create_directories(module.parent_path());
    std::filesystem::copy_file(QVTP_LIBRARY, std::filesystem::path(directory) / QVTP_LIBRARY_NAME);
    std::filesystem::copy_file(QVTP_PARSER, module);
    const std::string file = directory + "/settings.xml";
    writeFile(file, "<root><QvtpClient function='F' component='C' stale_timeout='2'/></root>");

    const std::string before = std::filesystem::current_path().string();
    const std::string elsewhere = makeTestDirectory();
    changeDirectory(directory);
    setEnvironment("LD_LIBRARY_PATH", ".");
    setEnvironment("QvtpConfigurationFile", file);
    EXPECT_THAT(
        runProbe(QVTP_CONFIG_PROBE, {"F", "C", elsewhere}, directory),
        ElementsAre("INFO Found qvtp configuration file: " + file, "client 60000 2 40960 QvtpClient", DEFAULT_SERVER));
    unsetEnvironment("LD_LIBRARY_PATH");
    unsetEnvironment("QvtpConfigurationFile");
    changeDirectory(before);
}

TEST(ParserModuleOfALinkedLibrary, IsFoundBesideTheLibraryThatTheLinkNames) {
    const std::filesystem::path real = makeTestDirectory();
    const std::filesystem::path directory = makeTestDirectory();
    const std::filesystem::path module = real / QVTP_PARSER_PATH;
    std::filesystem::create_directories(module.parent_path());
    std::filesystem::copy_file(QVTP_LIBRARY, real / QVTP_LIBRARY_NAME);
    std::filesystem::copy_file(QVTP_PARSER, module);
    std::filesystem::create_symlink(real / QVTP_LIBRARY_NAME, directory / QVTP_LIBRARY_NAME);
    const std::string file = (directory / "settings.xml").string();
    writeFile(file, "<root><QvtpClient function='F' component='C' stale_timeout='2'/></root>");
    setEnvironment("LD_LIBRARY_PATH", directory.string());
    setEnvironment("QvtpConfigurationFile", file);
    EXPECT_THAT(
        runProbe(QVTP_CONFIG_PROBE, {"F", "C"}, directory.string()),
        ElementsAre("INFO Found qvtp configuration file: " + file, "client 60000 2 40960 QvtpClient", DEFAULT_SERVER));
    unsetEnvironment("LD_LIBRARY_PATH");
    unsetEnvironment("QvtpConfigurationFile");
}

TEST(ParserModuleOfAMereName, IsNotSearchedFor) {
    const auto module = Quovane::Internal::Qvtp::loadParser("libqvtp-config.so.1");
    EXPECT_EQ(module.functions, nullptr);
    EXPECT_EQ(module.failure, "the library's own path is not known");
}

TEST(ParserModuleOfALinkedLibrary, IsMissedBesideTheLinkWhenItIsNowhere) {
    const std::filesystem::path real = makeTestDirectory();
    const std::filesystem::path directory = makeTestDirectory();
    std::filesystem::copy_file(QVTP_LIBRARY, real / QVTP_LIBRARY_NAME);
    std::filesystem::create_symlink(real / QVTP_LIBRARY_NAME, directory / QVTP_LIBRARY_NAME);
    const std::string file = (directory / "settings.xml").string();
    writeFile(file, "<root/>");
    setEnvironment("LD_LIBRARY_PATH", directory.string());
    setEnvironment("QvtpConfigurationFile", file);
    EXPECT_THAT(runProbe(QVTP_CONFIG_PROBE, {"F", "C"}, directory.string()),
                ::testing::Contains("ERROR Cannot load the parser of the qvtp Configuration file: " +
                                    (directory / QVTP_PARSER_PATH).string() + ": " QVTP_REASON_OF_A_MISSING_FILE));
    unsetEnvironment("LD_LIBRARY_PATH");
    unsetEnvironment("QvtpConfigurationFile");
}

}  // namespace
}  // namespace qvtp_test
