#include "client/DeadlineBuffer.h"

#include <qvtp/io/TimeoutException.h>

#include "common/System.h"

namespace Quovane::Internal::Qvtp {

DeadlineBuffer::DeadlineBuffer(QvPipe* pipe, int timeoutMs)
    : pipe_(pipe),
      source_(pipe->getInputStream()->rdbuf()),
      readTimeoutMs_(pipe->getReadTimeout()),
      endMs_(System::monotonicMs() + timeoutMs) {}

DeadlineBuffer::~DeadlineBuffer() {
    pipe_->setReadTimeout(readTimeoutMs_);
}

std::streamsize DeadlineBuffer::showmanyc() {
    return source_->in_avail();
}

DeadlineBuffer::int_type DeadlineBuffer::underflow() {
    limitNextRead();
    return source_->sgetc();
}

DeadlineBuffer::int_type DeadlineBuffer::uflow() {
    limitNextRead();
    return source_->sbumpc();
}

/// Does nothing while there is something in the source's buffer.
void DeadlineBuffer::limitNextRead() {
    if (source_->in_avail() > 0) return;
    const std::int64_t leftMs = endMs_ - System::monotonicMs();
    if (leftMs <= 0) throw Quovane::Io::TimeoutException("QvPipe read timeout.");
    pipe_->setReadTimeout(static_cast<int>(leftMs));
}

}  // namespace Quovane::Internal::Qvtp
