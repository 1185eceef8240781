#include "easy/Easy.h"

#include "support/Process.h"

#include <filesystem>
#include <sstream>

namespace qvtp_test {
namespace {

TEST(EasyPercent, EncodesAllButLettersDigitsAndFourMarks) {
    EXPECT_EQ(qvtp::percentEncode("aZ09-._~"), "aZ09-._~");
    EXPECT_EQ(qvtp::percentEncode("a b/c*%\n\xc3\xa4"), "a%20b%2Fc%2A%25%0A%C3%A4");
    EXPECT_EQ(qvtp::percentEncode(""), "");
}

TEST(EasyPercent, DecodesWhatItHasEncoded) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
    EXPECT_EQ(qvtp::percentDecode(qvtp::percentEncode(all)), all);
    EXPECT_EQ(qvtp::percentDecode("%e4%E4"), "\xe4\xe4");
}

TEST(EasyPercent, LeavesAPercentWithoutTwoDigitsAsItIs) {
    for (const char* const text : {"%", "%4", "%4g", "%g4", "a%", "% 4", "%-4", "%+4"}) {
        EXPECT_EQ(qvtp::percentDecode(text), text);
    }
}

TEST(EasyHeaders, AreFoundInWhateverCase) {
    const qvtp::Headers headers{{"X-One", "1"}, {"x-one", "2"}, {"Z[", "3"}};
    EXPECT_EQ(qvtp::valueOf(headers, "x-ONE"), "1");
    EXPECT_EQ(qvtp::valueOf(headers, "X-On"), "");
    EXPECT_EQ(qvtp::valueOf(headers, "z{"), "") << "only letters have a case";
}

// What stands between a newcomer and the whole of it has an end.
TEST(EasyHeaders, HaveAtMost900Lines) {
    int lines = 0;
    for (const auto& file : std::filesystem::directory_iterator(QVTP_EASY_HEADERS)) {
        std::istringstream text(contentsOfFile(file.path().string()));
        for (std::string line; std::getline(text, line);) ++lines;
    }
    EXPECT_GT(lines, 100);
    EXPECT_LE(lines, 900);
}

}  // namespace
}  // namespace qvtp_test
