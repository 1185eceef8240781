#include "message/QVTP_OBufferWriter.h"

#include "common/System.h"
#include "support/FailingStreamBuf.h"
#include "support/HasForm.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <ios>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Quovane::Internal::Qvtp;
using qvtp_test::HasForm;
using qvtp_test::LogCapture;
using qvtp_test::thrownBy;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Level = LogCapture::LoggingLevel;
using Direction = LogCapture::CommunicationLevel;

/// Writes "HEAD;" and counts how often it was asked to.
class CountingListener : public QvtpHeaderWriter {
  public:
    void writeHeaders(std::ostream* out) override {
        ++calls;
        *out << "HEAD;";
    }
    int calls = 0;
};

class BodyWriter : public ::testing::Test {
  protected:
    void open(int bufferSize, bool chunked, QvtpHeaderWriter* listener = nullptr) {
        writer_ = std::make_unique<QVTP_OBufferWriter>(bufferSize, chunked, &pipe_, listener);
    }
    int write(const std::string& data) { return writer_->write(data.data(), static_cast<long long>(data.size())); }
    std::string wire() const { return pipe_.str(); }

    std::ostringstream pipe_;
    CountingListener listener_;
    std::unique_ptr<QVTP_OBufferWriter> writer_;
};

TEST_F(BodyWriter, BuffersAndFramesTheBody) {
    open(4, true);
    EXPECT_EQ(write("abcdef"), 6);
    EXPECT_EQ(wire(), "4\r\nabcd\r\n");
    writer_->send();
    EXPECT_EQ(wire(), "4\r\nabcd\r\n2\r\nef\r\n0\r\n\r\n");
}

TEST_F(BodyWriter, WritesOutWhatIsBufferedOnFlush) {
    open(100, false);
    write("abc");
    EXPECT_EQ(wire(), "");
    writer_->flush();
    EXPECT_EQ(wire(), "abc");
}

TEST_F(BodyWriter, AsksForTheHeadOnceJustBeforeTheFirstByte) {
    open(1, true, &listener_);
    EXPECT_EQ(listener_.calls, 0);
    write("a");
    EXPECT_EQ(wire(), "HEAD;1\r\na\r\n");
    write("b");
    writer_->send();
    EXPECT_EQ(listener_.calls, 1);
}

TEST_F(BodyWriter, AsksForTheHeadAtTheFirstWriteEvenIfItStaysInTheBuffer) {
    open(100, true, &listener_);
    write("a");
    EXPECT_EQ(wire(), "HEAD;");
}

TEST_F(BodyWriter, AsksForTheHeadAtAFirstWriteOfNothing) {
    open(100, true, &listener_);
    EXPECT_EQ(writer_->write(nullptr, 0), 0);
    EXPECT_EQ(wire(), "HEAD;");
}

TEST_F(BodyWriter, AsksForNoHeadOnFlushOrSendAlone) {
    open(100, true, &listener_);
    writer_->flush();
    EXPECT_EQ(listener_.calls, 0);
    writer_->send();
    EXPECT_EQ(listener_.calls, 0);
}

TEST_F(BodyWriter, RefusesWritesAfterTheMessageWasSent) {
    open(4, true, &listener_);
    write("abc");
    writer_->send();
    const std::string sent = wire();
    const char text[] = "QvPipeException: Atempt to write to the QvPipe  after the message has been sent.";
    EXPECT_EQ(thrownBy([&] { write("d"); }), text);
    EXPECT_EQ(thrownBy([&] { writer_->write(nullptr, 0); }), text);
    EXPECT_EQ(wire(), sent);
}

TEST_F(BodyWriter, ReportsAtInfoHowMuchWasWritten) {
    const LogCapture log(Level::INFO);
    open(100, true);
    write(std::string(1000, 'x'));
    write(std::string(536, 'y'));
    EXPECT_THAT(log.messages(), IsEmpty());
    writer_->send();
    EXPECT_THAT(log.messages(), ElementsAre(HasForm("INFO Wrote 1\\.5 Kb to the QvPipe \\([-+e.0-9]+ Mbps\\)\\.")));
}

TEST_F(BodyWriter, CountsTheTimeFromTheFirstWrite) {
    const LogCapture log(Level::INFO);
    open(4096, false);
    write(std::string(4 << 20, 'x'));
    const std::int64_t start = System::wallClockMs();
    while (System::wallClockMs() < start + 3) std::this_thread::yield();
    writer_->send();
    // A rate that is counted from 1970 has a negative exponent.
    EXPECT_THAT(log.messages(), ElementsAre(HasForm("INFO Wrote 4 Mb to the QvPipe \\([.0-9]+ Mbps\\)\\.")));
}

TEST_F(BodyWriter, ReportsOnlyWhatThePipeTook) {
    const LogCapture log(Level::INFO, Direction::OUTPUT);
    qvtp_test::FailingStreamBuf failing(1);
    std::ostream pipe(&failing);
    pipe.exceptions(std::ios_base::badbit);
    QVTP_OBufferWriter writer(100, false, &pipe, nullptr);
    writer.write("abc", 3);
    EXPECT_THROW(writer.send(), qvtp_test::InjectedFailure);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_EQ(log.communication(), "");
}

TEST_F(BodyWriter, ReportsNothingBelowInfo) {
    for (const Level level : {Level::OFF, Level::ERROR, Level::WARN}) {
        const LogCapture log(level);
        open(100, true);
        write("abc");
        writer_->send();
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(BodyWriter, RecordsWhatWasWrittenWithoutFramingAndALineFeedAtTheEnd) {
    const LogCapture log(Level::INFO, Direction::OUTPUT);
    open(4, true);
    write("abcdef");
    write(std::string("\0\xFF", 2));
    writer_->flush();
    EXPECT_EQ(log.communication(), "");
    writer_->send();
    EXPECT_EQ(log.communication(), std::string("abcdef\0\xFF\n", 9));
}

TEST_F(BodyWriter, RecordsTheLineFeedOfAnEmptyBody) {
    const LogCapture log(Level::DEBUG, Direction::BOTH);
    open(4, true);
    writer_->send();
    EXPECT_EQ(log.communication(), "\n");
}

TEST_F(BodyWriter, RecordsNothingBelowInfo) {
    const LogCapture log(Level::WARN, Direction::OUTPUT);
    open(4, true);
    write("abc");
    writer_->send();
    EXPECT_EQ(log.communication(), "");
}

TEST_F(BodyWriter, RecordsNothingWhenOnlyInputIsRecorded) {
    const LogCapture log(Level::DEBUG, Direction::INPUT);
    open(4, true);
    write("abc");
    writer_->send();
    EXPECT_EQ(log.communication(), "");
}

TEST_F(BodyWriter, DecidesAtConstructionWhetherToRecord) {
    open(4, true);
    const LogCapture log(Level::INFO, Direction::OUTPUT);
    write("abc");
    writer_->send();
    EXPECT_EQ(log.communication(), "");
}

}  // namespace
