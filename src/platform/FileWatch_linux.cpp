#include "platform/FileWatch_linux.h"

#include "platform/Interruption_linux.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace Quovane::Internal::Qvtp {

bool FileWatch::addFile(const std::string& path) {
    // A socket and a file that is open live on without a name. Then the count of their names changes, which is an
    // attribute.
    return add(path, IN_ATTRIB | IN_MOVE_SELF);
}

void FileWatch::addDirectory(const std::string& path) {
    add(path, IN_MOVE_SELF | IN_DELETE_SELF);
}

bool FileWatch::add(const std::string& path, std::uint32_t changes) {
    if (!watch_.isOpen()) watch_ = Descriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    return watch_.isOpen() && ::inotify_add_watch(watch_.get(), path.c_str(), changes | IN_DONT_FOLLOW) >= 0;
}

bool FileWatch::hasReported() const {
    pollfd descriptor{watch_.get(), POLLIN, 0};
    return ::poll(&descriptor, 1, 0) != 0;
}

void FileWatch::clear() const {
    alignas(inotify_event) char events[4096];
    while (uninterrupted([&] { return ::read(watch_.get(), events, sizeof events); }) > 0) {
    }
}

}  // namespace Quovane::Internal::Qvtp
