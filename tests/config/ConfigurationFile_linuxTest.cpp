#include "config/ConfigurationFile.h"

#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace qvtp_test {
namespace {

using ::testing::HasSubstr;

/// On Linux a path is any bytes.
class ConfigurationPath : public ::testing::Test {
  protected:
    void TearDown() override {
        unsetEnvironment("QvtpConfigurationFile");
        unsetEnvironment("ASAN_OPTIONS");
    }

    /// What a process prints whose configuration file is this one, relative to the directory of the test.
    std::string probe(const std::string& path, const std::string& contents) {
        writeFile(path, contents);
        setEnvironment("QvtpConfigurationFile", path);
        EXPECT_EQ(Process(QVTP_CONFIG_PROBE, {"F", "C"}, directory + "/output.txt").wait(), 0);
        return contentsOfFile(directory + "/output.txt");
    }

    const std::string entry = "<QvtpClient function='F' component='C' stale_timeout='2'/>";
    const std::string directory = makeTestDirectory();
};

TEST_F(ConfigurationPath, MayBeOfAnyBytes) {
    for (const char* name : {"/caf\xE9.xml", "/\xC3\xA4.xml", "/\xFF\xFE \x80.xml"}) {
        const std::string output = probe(directory + name, "<root>" + entry + "</root>");
        EXPECT_THAT(output, HasSubstr("Found qvtp configuration file: " + directory + name));
        EXPECT_THAT(output, HasSubstr("\nclient 60000 2 40960 QvtpClient\n"));
    }
}

TEST_F(ConfigurationPath, MayBeRelativeInADirectoryOfAnyBytes) {
    const std::string odd = makeTestDirectory() + "\xE9";
    ASSERT_EQ(std::rename(odd.substr(0, odd.size() - 1).c_str(), odd.c_str()), 0);
    const std::string before = std::filesystem::current_path().string();
    changeDirectory(odd);
    EXPECT_THAT(probe("\xE9.xml", "<root>" + entry + "</root>"), HasSubstr("\nclient 60000 2 40960 QvtpClient\n"));
    changeDirectory(before);
}

TEST_F(ConfigurationPath, IsWhereTheGrammarIsLookedFor) {
    writeFile(directory + "/settings.dtd",
              "<!ELEMENT root (QvtpClient*)><!ELEMENT QvtpClient EMPTY><!ATTLIST QvtpClient function CDATA #REQUIRED "
              "component CDATA #REQUIRED stale_timeout CDATA '2'>");
    setEnvironment("ASAN_OPTIONS", "detect_leaks=0");  // Xerces-C++ 3.2 loses an entity of such a file
    EXPECT_THAT(probe(directory + "/settings.xml",
                      "<!DOCTYPE root SYSTEM 'settings.dtd'><root><QvtpClient function='F' component='C'/></root>"),
                HasSubstr("\nclient 60000 2 40960 QvtpClient\n"));
}

}  // namespace
}  // namespace qvtp_test
