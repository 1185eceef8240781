#include <qvtp/config/QvtpConfig.h>

#include "config/ConfigProbe.h"
#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

namespace qvtp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// Runs the probe on a configuration file and looks at what it printed.
class Config : public ::testing::Test {
  protected:
    void SetUp() override { unsetEnvironment("QvtpConfigurationFile"); }
    void TearDown() override { unsetEnvironment("QvtpConfigurationFile"); }

    /// The lines of a probe for this content, log lines as "LEVEL message".
    std::vector<std::string> probe(const std::string& xml, const std::string& function = "F",
                                   const std::string& component = "C") {
        writeFile(file, xml);
        setEnvironment("QvtpConfigurationFile", file);
        return run(function, component);
    }
    std::vector<std::string> run(const std::string& function = "F", const std::string& component = "C") {
        return runProbe(QVTP_CONFIG_PROBE, {function, component}, directory);
    }
    std::string found() const { return "INFO Found qvtp configuration file: " + file; }
    static std::string inRoot(const std::string& entries) { return "<root>" + entries + "</root>"; }

    const std::string directory = makeTestDirectory();
    const std::string file = directory + "/settings.xml";
};

TEST_F(Config, AppliesTheEntriesOfBothKinds) {
    EXPECT_THAT(probe(inRoot("<QvtpClient function='F' component='C' connect_timeout='1' stale_timeout='2' "
                             "buffer_size='3'/><QvtpServer function='F' component='C' max_request_processors='4' "
                             "accept_timeout='5' idle_timeout='6' receive_timeout='7' buffer_size='8'/>")),
                ElementsAre(found(), "client 1 2 3 QvtpClient", "server 4 5 6 7 8 QvtpServer"));
}

TEST_F(Config, IsMissingWithoutVariableAndFile) {
    changeDirectory(directory);
    EXPECT_THAT(run(), ElementsAre("ERROR Cannot find qvtp Configuration file: QvtpConfig.xml", NO_CONFIGURATION,
                                   NO_CONFIGURATION, DEFAULT_CLIENT, DEFAULT_SERVER));
}

TEST_F(Config, IsLookedForInTheCurrentDirectoryWithoutTheVariable) {
    writeFile(directory + "/QvtpConfig.xml", inRoot("<QvtpClient function='F' component='C' stale_timeout='2'/>"));
    changeDirectory(directory);
    EXPECT_THAT(run(), ElementsAre("INFO Found qvtp configuration file: QvtpConfig.xml",
                                   "client 60000 2 40960 QvtpClient", DEFAULT_SERVER));
}

TEST_F(Config, IsMissingWhereTheVariablePoints) {
    setEnvironment("QvtpConfigurationFile", directory + "/nowhere.xml");
    EXPECT_EQ(run()[0], "ERROR Cannot find qvtp Configuration file: " + directory + "/nowhere.xml");
}

TEST_F(Config, IsReadFromAPathWithBlanksAndPercentSigns) {
    const std::string path = directory + "/a %20 b#c.xml";
    writeFile(path, inRoot("<QvtpClient function='F' component='C' stale_timeout='2'/>"));
    setEnvironment("QvtpConfigurationFile", path);
    EXPECT_EQ(run()[1], "client 60000 2 40960 QvtpClient");
}

TEST_F(Config, AppliesTheFirstOfTwoEntries) {
    EXPECT_THAT(probe(inRoot("<QvtpClient function='F' component='C' stale_timeout='2'/>"
                             "<QvtpClient function='F' component='C' connect_timeout='9'/>")),
                ElementsAre(found(), "client 60000 2 40960 QvtpClient", DEFAULT_SERVER));
}

TEST_F(Config, IgnoresDeeperEntriesTextAndComments) {
    EXPECT_THAT(probe(inRoot("text<!-- c --><deeper><QvtpClient function='F' component='C' stale_timeout='2'/>"
                             "</deeper><Other function='F' component='C'/>")),
                ElementsAre(found(), DEFAULT_CLIENT, DEFAULT_SERVER));
}

TEST_F(Config, ComparesExactly) {
    const std::string xml = inRoot(
        "<QvtpClient function='F' component='C' stale_timeout='2'/>"
        "<qvtpclient function='G' component='C' stale_timeout='2'/>");
    for (const auto& [function, component] : {std::pair("f", "C"), std::pair("F", "c"), std::pair("F", ""),
                                              std::pair("", "C"), std::pair("G", "C"), std::pair("F ", "C")}) {
        EXPECT_THAT(probe(xml, function, component), ElementsAre(found(), DEFAULT_CLIENT, DEFAULT_SERVER));
    }
}

TEST_F(Config, FindsAnEntryAmongMany) {
    std::string entries;
    for (int i = 0; i < 300; ++i) {
        entries += "<QvtpClient function='F" + std::to_string(i) + "' component='C' stale_timeout='" +
                   std::to_string(i) + "'/>";
    }
    EXPECT_EQ(probe(inRoot(entries), "F217")[1], "client 60000 217 40960 QvtpClient");
}

TEST_F(Config, TakesAnAbsentAttributeAsEmpty) {
    EXPECT_EQ(probe(inRoot("<QvtpClient function='F' stale_timeout='2'/>"), "F", "")[1],
              "client 60000 2 40960 QvtpClient");
    EXPECT_EQ(probe(inRoot("<QvtpClient function='F' stale_timeout='2'/>"), "F", "C")[1], DEFAULT_CLIENT);
}

TEST_F(Config, ComparesTextBeyondAscii) {
    EXPECT_EQ(probe("<?xml version='1.0' encoding='UTF-8'?>" +
                        inRoot("<QvtpClient function='\xC3\x84\xE2\x82\xAC' component='C' stale_timeout='2'/>"),
                    "\xC3\x84\xE2\x82\xAC")[1],
              "client 60000 2 40960 QvtpClient");
}

TEST_F(Config, WarnsOfTheReadTimeoutOfAClient) {
    EXPECT_THAT(probe(inRoot("<QvtpClient function='F' component='C' read_timeout='5' stale_timeout='2'/>")),
                ElementsAre(found(), "WARN Unsupported C++ QvtpClient option: read_timeout ",
                            "client 60000 2 40960 QvtpClient", DEFAULT_SERVER));
}

TEST_F(Config, LogsTheAddressOfAnUnknownAttributeAndGoesOn) {
    const auto lines =
        probe(inRoot("<QvtpClient function='F' component='C' idle_timeout='5' stale_timeout='2'/>"
                     "<QvtpServer function='F' component='C' a='5' buffer_size='2'/>"));
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_TRUE(
        std::regex_match(lines[1], std::regex("ERROR Unrecognised QvtpClient configuration attribute 0x[0-9a-f]+")))
        << lines[1];
    EXPECT_TRUE(
        std::regex_match(lines[2], std::regex("ERROR Unrecognised QvtpServer configuration attribute 0x[0-9a-f]+")))
        << lines[2];
    EXPECT_EQ(lines[3], "client 60000 2 40960 QvtpClient");
    EXPECT_EQ(lines[4], "server 5 0 13000 3000 2 QvtpServer");
}

TEST_F(Config, TakesAnyNumber) {
    EXPECT_EQ(probe(inRoot("<QvtpClient function='F' component='C' stale_timeout='-2' buffer_size=' 0 '/>"))[1],
              "client 60000 -2 0 QvtpClient");
}

TEST_F(Config, LetsTheErrorOfAValueThatIsNoNumberOut) {
    for (const char* value : {"", "abc", "12abc"}) {
        const auto lines =
            probe(inRoot("<QvtpClient function='F' component='C' buffer_size='7' stale_timeout='" + std::string(value) +
                         "'/><QvtpServer function='F' component='C' buffer_size='8'/>"));
        EXPECT_THAT(lines, ElementsAre(found(), "client: foreign exception", "client 60000 10000 7 QvtpClient",
                                       "server 5 0 13000 3000 8 QvtpServer"))
            << value;
    }
}

TEST_F(Config, LetsThatErrorOutAsTheParsersClass) {
    writeFile(file, inRoot("<QvtpClient function='F' component='C' stale_timeout='12abc'/>"));
    setEnvironment("QvtpConfigurationFile", file);
    const std::string output = directory + "/output.txt";
    EXPECT_EQ(Process(QVTP_VALUE_ERROR_PROBE, {}, output).wait(), 0);
    EXPECT_EQ(contentsOfFile(output), "NumberFormatException invalid character encountered\n");
}

TEST_F(Config, IsNoneWhenTheFileIsMalformed) {
    const std::string entry = "<QvtpClient function='F' component='C' stale_timeout='2'/>";
    for (const std::string& xml : {"<root>" + entry, "<root>" + entry + "</other>", std::string(), std::string("text"),
                                   "<root>" + entry + "<a b></root>"}) {
        const auto lines = probe(xml);
        ASSERT_EQ(lines.size(), 6U) << xml;
        EXPECT_EQ(lines[0], found());
        EXPECT_THAT(lines[1], ::testing::StartsWith("ERROR ")) << xml;
        EXPECT_EQ(lines[2], NO_CONFIGURATION);
        EXPECT_EQ(lines[4], DEFAULT_CLIENT);
    }
}

TEST_F(Config, IsValidatedWhenItDeclaresAGrammar) {
    const std::string grammar =
        "<!DOCTYPE root [<!ELEMENT root (QvtpClient*)><!ELEMENT QvtpClient EMPTY>"
        "<!ATTLIST QvtpClient function CDATA #REQUIRED component CDATA #REQUIRED "
        "stale_timeout CDATA #IMPLIED>]>";
    EXPECT_EQ(probe(grammar + inRoot("<QvtpClient function='F' component='C' stale_timeout='2'/>"))[1],
              "client 60000 2 40960 QvtpClient");
    const auto lines = probe(grammar + inRoot("<Unknown/><QvtpClient function='F' component='C' stale_timeout='2'/>"));
    EXPECT_THAT(lines[1], ::testing::StartsWith("ERROR "));
    EXPECT_EQ(lines[lines.size() - 2], "client 60000 2 40960 QvtpClient");
}

TEST_F(Config, IsADirectoryAtItsPath) {
    setEnvironment("QvtpConfigurationFile", directory);
    // Xerces-C++ 3.2 loses 24 bytes when it can open but not read a file.
    setEnvironment("ASAN_OPTIONS", "detect_leaks=0");
    const auto lines = run();
    unsetEnvironment("ASAN_OPTIONS");
    EXPECT_THAT(lines, ElementsAre("INFO Found qvtp configuration file: " + directory,
                                   ::testing::StartsWith("ERROR unable to "), NO_CONFIGURATION, NO_CONFIGURATION,
                                   DEFAULT_CLIENT, DEFAULT_SERVER));
}

}  // namespace
}  // namespace qvtp_test
