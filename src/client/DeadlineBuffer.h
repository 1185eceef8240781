#pragma once

#include <qvtp/io/QvPipe.h>

#include <cstdint>
#include <streambuf>

namespace Quovane::Internal::Qvtp {

/// Reads from a pipe's input stream buffer until a moment in time, whatever arrives: each read of the pipe has as its
/// time-out only what is left. After that, reading throws TimeoutException. The pipe's own read time-out comes back at
/// the end.
class DeadlineBuffer : public std::streambuf {
  public:
    using QvPipe = Quovane::Io::QvPipe;

    /// The pipe is not owned. `timeoutMs`: from now on.
    DeadlineBuffer(QvPipe* pipe, int timeoutMs);
    DeadlineBuffer(const DeadlineBuffer&) = delete;
    DeadlineBuffer& operator=(const DeadlineBuffer&) = delete;
    ~DeadlineBuffer() override;

  protected:
    std::streamsize showmanyc() override;
    int_type underflow() override;
    int_type uflow() override;

  private:
    void limitNextRead();

    QvPipe* pipe_;            // not owned
    std::streambuf* source_;  // the pipe's
    int readTimeoutMs_;
    std::int64_t endMs_;
};

}  // namespace Quovane::Internal::Qvtp
