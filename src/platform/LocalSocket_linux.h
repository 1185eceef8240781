#pragma once

#include "platform/Deadline.h"
#include "platform/Descriptor_linux.h"

#include <chrono>
#include <string>

/// Unix-domain stream sockets in the way pipes need them. Failures leave their reason in errno.
namespace Quovane::Internal::Qvtp::LocalSocket {

/// A non-blocking socket, or a closed descriptor.
Descriptor create();

/// A socket that is connected blocks where a call does not say otherwise.
bool makeBlocking(int fd);

/// The longest time that a blocking receive waits: more than 0.
bool setReceiveTimeout(int fd, std::chrono::nanoseconds limit);

/// Gives the sending side room for the 65536 bytes that a pipe takes without a reader, whatever the sizes of the
/// pieces: the kernel counts its own bookkeeping too.
void reserveSendBuffer(int fd);

/// How much memory the kernel holds for what the peer has not read: more than its bytes, 0 for none, -1 if it does not
/// say. It falls when the last byte of a buffer has been read.
int unreadMemory(int fd);

bool bind(int fd, const std::string& path);

/// Connects without waiting: EAGAIN means that the server's queue is full.
bool connect(int fd, const std::string& path);

enum class QueueResult { CONNECTED, NOT_CONNECTED, FAILED };

/// Connects and waits for a place in the queue until the deadline. NOT_CONNECTED: the time is up or the queue went
/// away. FAILED: the wait could not be given its limit, and there was none.
QueueResult connectBefore(int fd, const std::string& path, const Deadline& deadline);

enum class WaitResult { READY, SIGNALLED, NOTICED, TIMED_OUT, FAILED };

/// Waits until `fd` is ready for `events` (as in poll) or `event` is signalled, which goes first. NOTICED: neither, but
/// `watch`, if there is one, can be read. Never FAILED after the deadline: who tries again after a failure comes to an
/// end.
WaitResult wait(int fd, short events, int event, const Deadline& deadline, int watch = -1);

}  // namespace Quovane::Internal::Qvtp::LocalSocket
