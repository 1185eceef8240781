#pragma once

#include <qvtp/io/QvPipe.h>

#include "message/QvtpMessageInImpl.h"

namespace Quovane::Internal::Qvtp {

/// What a request of a server has beyond a message: the connection that it came on.
class ServerRequestImpl : public QvtpMessageInImpl {
  public:
    using QvtpMessageInImpl::QvtpMessageInImpl;

    const Quovane::Io::QvPipe* pipe = nullptr;  // not owned; null if no worker reads the request
};

}  // namespace Quovane::Internal::Qvtp
