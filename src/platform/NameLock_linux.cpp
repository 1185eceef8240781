#include "platform/NameLock_linux.h"

#include "platform/Interruption_linux.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

struct flock wholeFile(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace

NameLock::Result NameLock::take(const PipeAddress& address, char direction) {
    Descriptor file = address.openLockFile(O_RDWR | O_CREAT);
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0) return Result::FAILED;
    if (status.st_nlink == 0) {  // it is just being removed, and may be the one that this process has locked
        errno = ENOENT;
        return Result::FAILED;
    }
    struct flock request = wholeFile(F_WRLCK);
    if (uninterrupted([&] { return ::fcntl(file.get(), F_OFD_SETLK, &request); }) != 0) {
        if (errno != EAGAIN && errno != EACCES) return Result::FAILED;
        request = wholeFile(F_WRLCK);
        const int asked = uninterrupted([&] { return ::fcntl(file.get(), F_OFD_GETLK, &request); });
        return asked == 0 && request.l_type != F_UNLCK ? Result::HELD_BY_ANOTHER : Result::REFUSED;
    }
    if (uninterrupted([&] { return ::pwrite(file.get(), &direction, 1, 0); }) != 1) return Result::FAILED;
    file_ = std::move(file);
    id_ = FileId(status);
    return Result::HELD;
}

/// Unlocks before it closes: a forked child may still hold the same open file description.
void NameLock::giveBack() {
    if (!isHeld()) return;
    // A client that meets the next server's lock before its direction must not take this one's for it.
    uninterrupted([&] { return ::ftruncate(file_.get(), 0); });
    struct flock request = wholeFile(F_UNLCK);
    uninterrupted([&] { return ::fcntl(file_.get(), F_OFD_SETLK, &request); });
    file_.reset();
}

}  // namespace Quovane::Internal::Qvtp
