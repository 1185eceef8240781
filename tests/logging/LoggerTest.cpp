#include "logging/Logger.h"

#include <qvtp/message/QvtpMessage.h>

#include "common/System.h"
#include "logging/LogLine.h"
#include "support/HasForm.h"
#include "support/LogCapture.h"
#include "support/PipeName.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Quovane::Internal::Qvtp;
using Quovane::Qvtp::CommunicationLevel;
using Quovane::Qvtp::LoggingLevel;
using Quovane::Qvtp::QvtpMessage;
using qvtp_test::HasForm;
using qvtp_test::LogCapture;

/// A file of this test's own.
class TemporaryFile {
  public:
    TemporaryFile() : file_(std::tmpfile()) {}
    ~TemporaryFile() { close(); }
    std::FILE* get() const { return file_; }
    void close() {
        if (file_ != nullptr) std::fclose(file_);
        file_ = nullptr;
    }
    std::string contents() const {
        std::string result;
        std::rewind(file_);
        for (int c = std::fgetc(file_); c != EOF; c = std::fgetc(file_)) result += static_cast<char>(c);
        return result;
    }

  private:
    std::FILE* file_;
};

/// A file that is read back by its name, so that what was not flushed is not seen.
class NamedFile {
  public:
    explicit NamedFile(const std::string& hint)
        : name_(::testing::TempDir() + qvtp_test::uniquePipeName(hint)), file_(std::fopen(name_.c_str(), "wb")) {}
    ~NamedFile() {
        QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
        std::fclose(file_);
        std::remove(name_.c_str());
    }
    std::FILE* get() const { return file_; }
    std::string onDisk() const {
        std::ifstream in(name_, std::ios_base::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

  private:
    std::string name_;
    std::FILE* file_;
};

class DiagnosticLogger : public ::testing::Test {
  protected:
    ~DiagnosticLogger() override {
        QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
        QvtpMessage::setLogCorrelationId("");
    }

    void logAt(int level) {
        QvtpMessage::setLoggingLevel(log_.get(), static_cast<LoggingLevel>(level), comm_.get(),
                                     CommunicationLevel::OFF);
    }
    void recordAt(int level) {
        QvtpMessage::setLoggingLevel(log_.get(), LoggingLevel::OFF, comm_.get(),
                                     static_cast<CommunicationLevel>(level));
    }
    static void writeOneLineOfEachLevel() {
        for (int level = 1; level <= 4; ++level) Logger::instance().writeLine(static_cast<LoggingLevel>(level), "x");
    }
    /// The first characters of all lines.
    std::string levelsWritten() {
        writeOneLineOfEachLevel();
        std::string levels;
        const std::string contents = log_.contents();
        for (std::size_t start = 0; start < contents.size(); start = contents.find('\n', start) + 1) {
            levels += contents[start];
        }
        return levels;
    }
    std::string directionsWritten() {
        Logger::instance().writeCommunication(CommunicationLevel::INPUT, "in ", 3, false);
        Logger::instance().writeCommunication(CommunicationLevel::OUTPUT, "out ", 4, false);
        return comm_.contents();
    }

    TemporaryFile log_;
    TemporaryFile comm_;
};

TEST_F(DiagnosticLogger, HasTheNumbersOfTheLevels) {
    EXPECT_EQ(static_cast<int>(LoggingLevel::OFF), 0);
    EXPECT_EQ(static_cast<int>(LoggingLevel::ERROR), 1);
    EXPECT_EQ(static_cast<int>(LoggingLevel::WARN), 2);
    EXPECT_EQ(static_cast<int>(LoggingLevel::INFO), 3);
    EXPECT_EQ(static_cast<int>(LoggingLevel::DEBUG), 4);
}

TEST_F(DiagnosticLogger, HasTheNumbersOfTheCommunicationLevels) {
    EXPECT_EQ(static_cast<int>(CommunicationLevel::OFF), 0);
    EXPECT_EQ(static_cast<int>(CommunicationLevel::INPUT), 1);
    EXPECT_EQ(static_cast<int>(CommunicationLevel::OUTPUT), 2);
    EXPECT_EQ(static_cast<int>(CommunicationLevel::BOTH), 3);
    EXPECT_EQ(CommunicationLevel::both, CommunicationLevel::BOTH);
}

TEST_F(DiagnosticLogger, IsOneForTheProcess) {
    EXPECT_EQ(&Logger::instance(), &Logger::instance());
}

TEST_F(DiagnosticLogger, WritesLinesOfTheLevelAndOfMoreSeriousOnes) {
    const std::string expected[] = {"", "E", "EW", "EWI", "EWID"};
    for (int level = 0; level <= 4; ++level) {
        const TemporaryFile file;
        QvtpMessage::setLoggingLevel(file.get(), static_cast<LoggingLevel>(level), nullptr, CommunicationLevel::OFF);
        writeOneLineOfEachLevel();
        std::string letters;
        for (const char* name : {"ERROR", "WARN ", "INFO ", "DEBUG"}) {
            if (file.contents().find(name) != std::string::npos) letters += name[0];
        }
        EXPECT_EQ(letters, expected[level]) << level;
    }
}

TEST_F(DiagnosticLogger, TakesUnknownLevelsForOff) {
    for (const int level : {-1, 5, 9, 1000}) {
        logAt(level);
        EXPECT_EQ(Logger::instance().level(), LoggingLevel::OFF) << level;
    }
    EXPECT_EQ(levelsWritten(), "");
}

TEST_F(DiagnosticLogger, RecordsOnlyTheDirectionsOfTheCommunicationLevel) {
    const std::string expected[] = {"", "in ", "out ", "in out "};
    for (int level = 0; level <= 3; ++level) {
        const TemporaryFile file;
        QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, file.get(), static_cast<CommunicationLevel>(level));
        Logger::instance().writeCommunication(CommunicationLevel::INPUT, "in ", 3, false);
        Logger::instance().writeCommunication(CommunicationLevel::OUTPUT, "out ", 4, false);
        EXPECT_EQ(file.contents(), expected[level]) << level;
    }
}

TEST_F(DiagnosticLogger, TakesUnknownCommunicationLevelsForOff) {
    for (const int level : {-1, 4, 7, 1000}) {
        recordAt(level);
        EXPECT_FALSE(Logger::instance().isEnabled(CommunicationLevel::INPUT)) << level;
        EXPECT_FALSE(Logger::instance().isEnabled(CommunicationLevel::OUTPUT)) << level;
    }
    EXPECT_EQ(directionsWritten(), "");
}

TEST_F(DiagnosticLogger, RecordsNothingWithoutACommunicationFile) {
    QvtpMessage::setLoggingLevel(log_.get(), LoggingLevel::DEBUG, nullptr, CommunicationLevel::both);
    EXPECT_FALSE(Logger::instance().isEnabled(CommunicationLevel::INPUT));
    EXPECT_FALSE(Logger::instance().isEnabled(CommunicationLevel::OUTPUT));
    Logger::instance().writeCommunication(CommunicationLevel::INPUT, "x", 1, true);
    EXPECT_EQ(log_.contents(), "");
}

TEST_F(DiagnosticLogger, WritesNoLinesWithoutALogFile) {
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::DEBUG, comm_.get(), CommunicationLevel::both);
    writeOneLineOfEachLevel();
    EXPECT_EQ(Logger::instance().level(), LoggingLevel::DEBUG);
    EXPECT_EQ(comm_.contents(), "");
}

TEST_F(DiagnosticLogger, WritesToTheFilesOfTheLastCall) {
    const TemporaryFile next;
    logAt(4);
    QvtpMessage::setLoggingLevel(next.get(), LoggingLevel::ERROR, nullptr, CommunicationLevel::OFF);
    EXPECT_EQ(levelsWritten(), "");
    EXPECT_EQ(next.contents().substr(0, 5), "ERROR");
}

TEST_F(DiagnosticLogger, WritesAndFlushesAWholeLineAtOnce) {
    logAt(4);
    Logger::setCorrelationId("call-7");
    Logger::instance().writeLine(LoggingLevel::WARN, "It happened.");
    const std::string thread = std::to_string(System::currentThreadId());
    EXPECT_THAT(log_.contents(), HasForm("WARN  - [0-9]+/[0-9]+/[0-9]+-[0-9]+:[0-9]+:[0-9]+\\.[ 0-9]+ UTC - Thread-" +
                                         thread + ": call-7 - It happened\\.- Quovane\\.SOA\\.Qvtp\n"));
}

TEST_F(DiagnosticLogger, FlushesEveryLineAndRecord) {
    const NamedFile log("log");
    const NamedFile comm("comm");
    QvtpMessage::setLoggingLevel(log.get(), LoggingLevel::INFO, comm.get(), CommunicationLevel::BOTH);
    Logger::instance().writeLine(LoggingLevel::INFO, "text");
    Logger::instance().writeCommunication(CommunicationLevel::INPUT, "bytes", 5, false);
    EXPECT_EQ(log.onDisk().substr(0, 4), "INFO");
    EXPECT_EQ(comm.onDisk(), "bytes");
}

TEST_F(DiagnosticLogger, PrintsTheTimeAtWhichTheLineIsWritten) {
    logAt(4);
    const auto timeOf = [](const std::string& line) { return line.substr(8, 23); };
    const auto lineNow = [] { return LogLine::format(LoggingLevel::INFO, System::wallClockMs(), 1, "", ""); };
    const std::string before = timeOf(lineNow());
    Logger::instance().writeLine(LoggingLevel::INFO, "text");
    const std::string after = timeOf(lineNow());
    EXPECT_LE(before, timeOf(log_.contents()));  // blanks before digits: the text sorts as the time does
    EXPECT_GE(after, timeOf(log_.contents()));
}

TEST_F(DiagnosticLogger, PrintsTheTimeAtWhichTheRecordIsWritten) {
    recordAt(3);
    const auto headerNow = [] {
        return LogLine::formatCommunicationHeader(CommunicationLevel::INPUT, System::wallClockMs(), "");
    };
    const std::string before = headerNow();
    Logger::instance().writeCommunication(CommunicationLevel::INPUT, "", 0, true);
    const std::string after = headerNow();
    EXPECT_LE(before, comm_.contents());
    EXPECT_GE(after, comm_.contents());
}

TEST_F(DiagnosticLogger, PrintsNoCorrelationIdForAThreadThatHasNone) {
    logAt(4);
    std::uint32_t id = 0;
    std::thread([&] {
        id = System::currentThreadId();
        Logger::instance().writeLine(LoggingLevel::INFO, "text");
    }).join();
    EXPECT_NE(log_.contents().find(" UTC - Thread-" + std::to_string(id) + ":  - text- Quovane"), std::string::npos);
}

TEST_F(DiagnosticLogger, KeepsOneCorrelationIdForEachThread) {
    QvtpMessage::setLogCorrelationId("mine");
    std::string inherited = "?";
    std::string own;
    std::thread([&] {
        inherited = Logger::correlationId();
        QvtpMessage::setLogCorrelationId("other");
        own = Logger::correlationId();
    }).join();
    EXPECT_EQ(inherited, "");
    EXPECT_EQ(own, "other");
    EXPECT_EQ(Logger::correlationId(), "mine");
}

TEST_F(DiagnosticLogger, NeverGivesAThreadTheIdOfOneThatEnded) {
    for (int i = 0; i < 50; ++i) {
        std::string first = "?";
        std::thread([&] {
            first = Logger::correlationId();
            Logger::setCorrelationId("left over");
        }).join();
        ASSERT_EQ(first, "");
    }
}

TEST_F(DiagnosticLogger, ReplacesTheCorrelationIdOfAThread) {
    QvtpMessage::setLogCorrelationId("first");
    QvtpMessage::setLogCorrelationId("second");
    EXPECT_EQ(Logger::correlationId(), "second");
    QvtpMessage::setLogCorrelationId("");
    EXPECT_EQ(Logger::correlationId(), "");
}

TEST_F(DiagnosticLogger, WritesOnlyTheBytesOfARecordWithoutHeader) {
    recordAt(3);
    Logger::instance().writeCommunication(CommunicationLevel::INPUT, "a\0\r\n\xFF", 5, false);
    EXPECT_EQ(comm_.contents(), std::string("a\0\r\n\xFF", 5));
}

TEST_F(DiagnosticLogger, WritesAHeaderLineBeforeTheBytesOfARecordThatAsksForIt) {
    recordAt(3);
    Logger::setCorrelationId("call-7");
    Logger::instance().writeCommunication(CommunicationLevel::OUTPUT, "bytes", 5, true);
    const std::string time = "[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[ 0-9][ 0-9][0-9]";
    EXPECT_THAT(comm_.contents(), HasForm(time + " \\[OUTPUT\\] call-7" + std::string(44, ' ') + "\nbytes"));
}

TEST_F(DiagnosticLogger, WritesTheHeaderLineAloneForARecordWithoutBytes) {
    recordAt(1);
    Logger::instance().writeCommunication(CommunicationLevel::INPUT, nullptr, 0, true);
    EXPECT_THAT(comm_.contents(), HasForm("[-0-9]+ [:0-9]+\\.[ 0-9]+ \\[INPUT \\]  *\n"));
}

TEST_F(DiagnosticLogger, NeverClosesTheFiles) {
    logAt(4);
    recordAt(3);
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    EXPECT_GE(std::fputs("still open", log_.get()), 0);
    EXPECT_GE(std::fputs("still open", comm_.get()), 0);
}

TEST(LoggerThreads, NeverInterleaveTheirLines) {
    const LogCapture log;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            const auto level = static_cast<LoggingLevel>(t + 1);
            const std::string message(200, static_cast<char>('a' + t));
            for (int i = 0; i < 250; ++i) Logger::instance().writeLine(level, message);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(log.count("ERROR " + std::string(200, 'a')), 250);
    EXPECT_EQ(log.count("WARN " + std::string(200, 'b')), 250);
    EXPECT_EQ(log.count("INFO " + std::string(200, 'c')), 250);
    EXPECT_EQ(log.count("DEBUG " + std::string(200, 'd')), 250);
}

TEST(LoggerThreads, KeepTheHeaderAndBytesOfARecordTogether) {
    const LogCapture log(LoggingLevel::OFF, CommunicationLevel::BOTH);
    std::vector<std::thread> threads;
    for (const char c : {'a', 'b', 'c'}) {
        threads.emplace_back([c] {
            const std::string bytes = std::string(100, c) + "\n";
            const auto direction = c == 'a' ? CommunicationLevel::INPUT : CommunicationLevel::OUTPUT;
            QvtpMessage::setLogCorrelationId(std::string(1, c));
            for (int i = 0; i < 200; ++i) Logger::instance().writeCommunication(direction, bytes.data(), 101, true);
        });
    }
    for (std::thread& thread : threads) thread.join();
    const std::string all = log.communication();
    ASSERT_EQ(all.size(), 600U * (83 + 1 + 101));
    for (std::size_t i = 0; i < all.size(); i += 185) {
        ASSERT_EQ(all.substr(i + 84, 101), std::string(100, all[i + 33]) + "\n");
    }
}

TEST(LoggerThreads, LeaveAFileAloneOnceTheSettingsHaveChanged) {
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            while (!done) {
                Logger::instance().writeLine(static_cast<LoggingLevel>(t + 1), "text");
                Logger::instance().writeCommunication(CommunicationLevel::INPUT, "bytes", 5, true);
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        TemporaryFile log;
        TemporaryFile comm;
        QvtpMessage::setLoggingLevel(log.get(), LoggingLevel::DEBUG, comm.get(), CommunicationLevel::both);
        std::this_thread::yield();
        QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
        const std::string before = log.contents();
        std::this_thread::yield();
        EXPECT_EQ(log.contents(), before);
    }
    done = true;
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
