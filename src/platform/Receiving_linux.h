#pragma once

#include "platform/LocalSocket_linux.h"
#include "platform/PipeObject_linux.h"

#include <sys/types.h>

#include <cstddef>

namespace Quovane::Internal::Qvtp {

/// One step of receiving on a connection: a try, and a wait that tries again. For the thread that reads.
class Receiving {
  public:
    enum class Wake { POSSIBLE, NEVER };

    /// With length 0 nothing is taken: it only looks whether there is anything. `wake`: whether the object's wake event
    /// may end a wait. Without that a wait takes fewer calls of the system; a close ends it all the same.
    Receiving(PipeObject& object, char* buffer, std::size_t length, Wake wake)
        : object_(object), buffer_(buffer), length_(length), wake_(wake) {}

    /// Without waiting.
    void attempt();
    /// READY: it was tried again, and that did not have to wait.
    LocalSocket::WaitResult wait(const Deadline& deadline);

    /// The outcome of the last try. The number of bytes, with length 0 of those that it saw; 0 at the end, also when
    /// the peer left data of ours unread; -1 with error().
    ssize_t count() const { return count_; }
    int error() const { return error_; }
    bool mustWait() const;

  private:
    bool isRefill() const;
    void receive(int flags);
    ssize_t receiveAhead(char* buffer, std::size_t length, int flags);
    void takeAhead();
    bool spin();
    bool block(const Deadline& deadline);

    PipeObject& object_;
    char* const buffer_;
    const std::size_t length_;
    const Wake wake_;
    ssize_t count_ = -1;
    int error_ = 0;
};

}  // namespace Quovane::Internal::Qvtp
