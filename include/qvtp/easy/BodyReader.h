#pragma once

#include <qvtp/easy/Options.h>

#include <exception>
#include <istream>
#include <streambuf>

namespace qvtp::detail {

/// The body of one message as it is read: counted, and compared with its announced length.
class BodyReader : public std::streambuf {
  public:
    /// Throws what a failure comes to, as every later read does. It is called while the library's exception is handled,
    /// or with false if the body has just ended too early.
    using OnFailure = std::function<void(bool isThrown)>;

    /// `total`: the announced length, -1 if there is none. The source is not owned.
    BodyReader(std::istream& source, std::int64_t total, OnFailure onFailure)
        : source_(source), total_(total), onFailure_(std::move(onFailure)) {}

    std::string readAll() {
        std::string body;
        while (!isAtEnd()) {
            const std::size_t before = body.size();
            body.resize(before + (total_ < 0 ? sizeof area_ : std::max(before, sizeof area_)));
            body.resize(before + read(&body[before], body.size() - before));
        }
        return body;
    }
    /// What has arrived, at least one byte; empty at the end.
    std::string_view readPiece() { return {area_, isAtEnd() ? 0 : read(area_, sizeof area_)}; }
    bool isAtEnd() const { return ended_ || bytes_ == total_; }
    Progress progress() const { return {static_cast<std::uint64_t>(bytes_), total_}; }
    bool hasFailed() const { return failure_ != nullptr; }
    /// Throws again if a read has failed, whoever may have swallowed that.
    void check() const {
        if (failure_) std::rethrow_exception(failure_);
    }

  protected:
    int_type underflow() override {
        const std::string_view piece = readPiece();
        setg(area_, area_, area_ + piece.size());
        return piece.empty() ? traits_type::eof() : traits_type::to_int_type(piece.front());
    }

  private:
    std::size_t read(char* buffer, std::size_t size) try {
        check();
        std::streamsize count = 0;
        try {
            count = total_ < 0 ? readSome(buffer, size) : source_.read(buffer, blockOf(size)).gcount();
        } catch (...) {
            onFailure_(true);
        }
        bytes_ += count;
        ended_ = count == 0 || !source_.good();
        if (ended_ && bytes_ < total_) onFailure_(false);
        return static_cast<std::size_t>(count);
    } catch (...) {
        failure_ = std::current_exception();
        throw;
    }
    std::streamsize blockOf(std::size_t size) const {
        return std::min<std::int64_t>(static_cast<std::int64_t>(size), total_ - bytes_);
    }
    /// Of a chunked body: without waiting for more than there is.
    std::streamsize readSome(char* buffer, std::size_t size) {
        return source_.peek() == traits_type::eof() ? 0 : source_.readsome(buffer, static_cast<std::streamsize>(size));
    }

    std::istream& source_;
    const std::int64_t total_;
    const OnFailure onFailure_;
    std::int64_t bytes_ = 0;
    bool ended_ = false;
    std::exception_ptr failure_;
    char area_[16384];
};
}  // namespace qvtp::detail
