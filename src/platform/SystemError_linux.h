#pragma once

#include "platform/SystemError.h"

namespace Quovane::Internal::Qvtp::SystemError {

/// The number for a value of errno.
int fromErrno(int error);

/// Whether the number means that descriptors or memory ran out: worth another try later.
bool isShortage(int number);

}  // namespace Quovane::Internal::Qvtp::SystemError
