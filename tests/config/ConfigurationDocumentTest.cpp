#include "config/ConfigurationDocument.h"

#include "support/LogCapture.h"
#include "support/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::ConfigurationDocument;
using Quovane::Qvtp::QvtpClient;

class DocumentOfAConfiguration : public ::testing::Test {
  protected:
    void TearDown() override { unsetEnvironment("QvtpConfigurationFile"); }

    void write(const std::string& text) {
        writeFile(directory + "/settings.xml", text);
        setEnvironment("QvtpConfigurationFile", directory + "/settings.xml");
    }

    const std::string directory = makeTestDirectory();
};

TEST_F(DocumentOfAConfiguration, HasTheEntriesOfTheFileInTheirOrder) {
    write("<c><B x='1' y='2'/><deep><C/></deep><A/></c>");
    ConfigurationDocument document;
    document.load();
    ASSERT_TRUE(document.isRead());
    ASSERT_EQ(document.entries().size(), 3U);
    EXPECT_EQ(document.entries()[0].kind, "B");
    ASSERT_EQ(document.entries()[0].attributes.size(), 2U);
    EXPECT_EQ(document.entries()[0].attributes[1].name + document.entries()[0].attributes[1].value, "y2");
    EXPECT_EQ(document.entries()[1].kind, "deep");
    EXPECT_EQ(document.entries()[2].kind, "A");
}

TEST_F(DocumentOfAConfiguration, IsReadAnewByEachObject) {
    QvtpClient client;
    for (const int value : {1, 2}) {
        write("<c><QvtpClient stale_timeout='" + std::to_string(value) + "'/></c>");
        ConfigurationDocument document;
        document.load();
        document.apply(client, "", "");
        EXPECT_EQ(client.getIntegerOption(QvtpClient::IDLE_TIMEOUT), value);
    }
}

TEST_F(DocumentOfAConfiguration, HasNothingOfAFileThatIsCutOff) {
    write("<c><QvtpClient stale_timeout='1'/>");
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    ConfigurationDocument document;
    document.load();
    EXPECT_FALSE(document.isRead());
    EXPECT_TRUE(document.entries().empty());
    EXPECT_EQ(log.messages().size(), 1U);
}

/// The parser has classes of its own for what is wrong with a file, and for what is wrong with a node.
TEST_F(DocumentOfAConfiguration, HasNothingOfAFileWithAnAttributeThatNoNodeCanHave) {
    write("<!DOCTYPE c [<!ELEMENT c ANY><!ATTLIST c :a CDATA 'x'>]><c/>");
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    ConfigurationDocument document;
    document.load();
    EXPECT_FALSE(document.isRead());
    EXPECT_THAT(log.messages(), ::testing::ElementsAre(::testing::HasSubstr("namespaces")));
}

}  // namespace
}  // namespace qvtp_test
