#pragma once

#include <streambuf>
#include <string>

namespace qvtp_test {

/// What a failing operation does.
enum class Failure { THROWS, REPORTS };

/// Thrown by a FailingStreamBuf.
struct InjectedFailure {
    int operation;
};

/// Takes what is written to it, until its Nth operation (write or flush, from 1) fails; every later one fails too.
class FailingStreamBuf : public std::streambuf {
  public:
    explicit FailingStreamBuf(int failAt, Failure failure = Failure::THROWS) : failAt_(failAt), failure_(failure) {}

    const std::string& written() const { return written_; }
    int operations() const { return operations_; }

  protected:
    std::streamsize xsputn(const char* data, std::streamsize length) override {
        if (!proceed()) return 0;
        written_.append(data, static_cast<std::size_t>(length));
        return length;
    }

    int_type overflow(int_type c) override {
        if (!proceed()) return traits_type::eof();
        written_ += traits_type::to_char_type(c);
        return c;
    }

    int sync() override { return proceed() ? 0 : -1; }

  private:
    bool proceed() {
        if (++operations_ < failAt_) return true;
        if (failure_ == Failure::THROWS) throw InjectedFailure{operations_};
        return false;
    }

    int failAt_;
    Failure failure_;
    int operations_ = 0;
    std::string written_;
};

}  // namespace qvtp_test
