#include "config/ConfigProbe.h"
#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

/// A copy of the library, with the probe beside it, but at first without the parser module.
class ParserModule : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directories(modulePath.parent_path());
        copy(QVTP_LIBRARY, std::filesystem::path(directory) / QVTP_LIBRARY_NAME);
        copy(QVTP_CONFIG_PROBE, program);
        // On Windows the program's own directory is the first.
        setEnvironment("LD_LIBRARY_PATH", directory);
        writeFile(file, "<root><QvtpClient function='F' component='C' stale_timeout='2'/></root>");
        setEnvironment("QvtpConfigurationFile", file);
    }
    void TearDown() override {
        unsetEnvironment("LD_LIBRARY_PATH");
        unsetEnvironment("QvtpConfigurationFile");
    }

    static void copy(const std::filesystem::path& from, const std::filesystem::path& to) {
        std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
    }

    std::vector<std::string> run(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> arguments = {"F", "C"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return runProbe(program, arguments, directory);
    }
    std::string found() const { return "INFO Found qvtp configuration file: " + file; }
    static auto cannotLoad() { return StartsWith("ERROR Cannot load the parser of the qvtp Configuration file: "); }
    static auto configured() { return "client 60000 2 40960 QvtpClient"; }
    auto withoutConfiguration() const {
        return ElementsAre(found(), cannotLoad(), NO_CONFIGURATION, NO_CONFIGURATION, DEFAULT_CLIENT, DEFAULT_SERVER);
    }

    const std::string directory = makeTestDirectory();
    const std::string program = directory + "/probe" QVTP_EXECUTABLE_SUFFIX;
    const std::string file = directory + "/settings.xml";
    const std::filesystem::path modulePath = (std::filesystem::path(directory) / QVTP_PARSER_PATH).lexically_normal();
};

TEST_F(ParserModule, IsMissedWithOneLineAndLeavesNoConfiguration) {
    EXPECT_THAT(run(), withoutConfiguration());
}

TEST_F(ParserModule, IsNamedWithItsPathAndTheSystemsReason) {
    EXPECT_EQ(run()[1], "ERROR Cannot load the parser of the qvtp Configuration file: " + modulePath.string() + ": " +
                            QVTP_REASON_OF_A_MISSING_FILE);
}

TEST_F(ParserModule, IsNotMissedWithoutAFile) {
    setEnvironment("QvtpConfigurationFile", directory + "/nowhere.xml");
    EXPECT_THAT(run(), ElementsAre("ERROR Cannot find qvtp Configuration file: " + directory + "/nowhere.xml",
                                   NO_CONFIGURATION, NO_CONFIGURATION, DEFAULT_CLIENT, DEFAULT_SERVER));
}

TEST_F(ParserModule, IsFoundBesideTheLibraryWhereverThatLies) {
    copy(QVTP_PARSER, modulePath);
    EXPECT_THAT(run(), ElementsAre(found(), configured(), DEFAULT_SERVER));
}

TEST_F(ParserModule, IsFoundFromAnyCurrentDirectory) {
    copy(QVTP_PARSER, modulePath);
    EXPECT_THAT(run({makeTestDirectory()}), ElementsAre(found(), configured(), DEFAULT_SERVER));
}

TEST_F(ParserModule, IsNotLookedForInTheCurrentDirectory) {
    const std::filesystem::path elsewhere = makeTestDirectory();
    const std::string name = modulePath.filename().string();
    std::filesystem::create_directories(elsewhere / "qvtp");
    copy(QVTP_PARSER, elsewhere / "qvtp" / name);
    copy(QVTP_PARSER, elsewhere / name);
    EXPECT_THAT(run({elsewhere.string()}), withoutConfiguration());
}

TEST_F(ParserModule, IsNotAFileThatIsNoLibrary) {
    writeFile(modulePath.string(), "text");
    EXPECT_THAT(run(), withoutConfiguration());
}

TEST_F(ParserModule, IsNotALibraryOfAnotherMake) {
    copy(QVTP_NOT_A_PARSER, modulePath);
    EXPECT_THAT(run(), withoutConfiguration());
}

}  // namespace
}  // namespace qvtp_test
