#pragma once

#include <cerrno>

namespace Quovane::Internal::Qvtp {

/// The result of a call of the system that gives -1 and EINTR when a signal comes first: it is made again then.
template <typename Call>
auto uninterrupted(const Call& call) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

}  // namespace Quovane::Internal::Qvtp
