#include "io/PipeControl.h"

#include "support/PipeName.h"
#include "support/RawServer.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <istream>
#include <memory>
#include <string>

namespace qvtp_test {
namespace {

using Quovane::Internal::Qvtp::PipeControl;
using Quovane::Io::QvPipe;
using Input = PipeControl::Input;

/// A connection that is waited on.
class ControlledPipe : public ::testing::Test {
  protected:
    ControlledPipe() {
        pipe.connect(name, true, true);
        peer = server.accept();
    }
    /// Takes this from the stream.
    std::string taken(std::size_t size) {
        std::string text(size, '?');
        pipe.getInputStream()->read(&text[0], static_cast<std::streamsize>(size));
        return text;
    }

    const std::string name = uniquePipeName();
    RawServer server{name};
    QvPipe pipe;
    std::unique_ptr<QvPipe> peer;
};

TEST_F(ControlledPipe, IsWaitedOnBeforeItHasAStream) {
    RawServer::write(*peer, "there");
    EXPECT_EQ(PipeControl::awaitInput(pipe, 20000, true), Input::THERE);
    EXPECT_EQ(taken(5), "there");
}

TEST_F(ControlledPipe, KeepsWhatItsStreamHoldsDuringAWait) {
    RawServer::write(*peer, "abc");
    EXPECT_EQ(taken(1), "a");
    RawServer::write(*peer, "def");
    EXPECT_EQ(PipeControl::awaitInput(pipe, 20000, true), Input::THERE);
    EXPECT_EQ(taken(5), "bcdef");
}

TEST_F(ControlledPipe, KeepsTheBytesInOrderUnderABufferOfSomebodyElse) {
    class Upper : public std::streambuf {
      public:
        explicit Upper(std::streambuf& inner) : inner_(inner) {}

      protected:
        int_type underflow() override {
            const int_type next = inner_.sbumpc();
            if (next == traits_type::eof()) return next;
            byte_ = static_cast<char>(std::toupper(next));
            setg(&byte_, &byte_, &byte_ + 1);
            return traits_type::to_int_type(byte_);
        }

      private:
        std::streambuf& inner_;
        char byte_ = 0;
    };
    std::istream& in = *pipe.getInputStream();
    std::streambuf* const own = in.rdbuf();
    Upper upper(*own);
    in.rdbuf(&upper);
    RawServer::write(*peer, "abc");
    EXPECT_EQ(PipeControl::awaitInput(pipe, 20000, true), Input::THERE);
    EXPECT_EQ(taken(3), "ABC");
    in.rdbuf(own);
}

TEST_F(ControlledPipe, HasNoShortWayBeforeItHasAStream) {
    EXPECT_EQ(PipeControl::sinkOf(pipe), nullptr);
    EXPECT_EQ(thrownBy([&] { pipe.getOutputStream(); }), "nothing");
    EXPECT_EQ(PipeControl::sinkOf(pipe), nullptr) << "nor before its stream has an area";
}

}  // namespace
}  // namespace qvtp_test
