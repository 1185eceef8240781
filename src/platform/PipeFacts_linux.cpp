#include <qvtp/platform/PipeFacts.h>

#include "common/System.h"
#include "common/Text.h"
#include "platform/Interruption_linux.h"
#include "platform/PipeAddress_linux.h"
#include "platform/SystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Quovane::Io {

using namespace Quovane::Internal::Qvtp;
using State = PipeFacts::State;

namespace {

std::string textOf(int error) {
    return std::generic_category().message(error);
}

PipeFacts badName(const std::string& name, int error) {
    const char* const reason =
        error == SystemError::NAME_TOO_LONG ? "A name has at most 247 bytes." : "A name is not empty.";
    return {State::BAD_NAME, name, reason};
}

std::string describeDirectory(const std::string& path, const struct stat& status) {
    if (S_ISLNK(status.st_mode)) return text("The pipe directory ", path, " is a link. Name what it leads to.");
    if (!S_ISDIR(status.st_mode)) return text("The pipe directory ", path, " is no directory. Remove what is there.");
    if (status.st_uid != ::geteuid()) {
        return text("The pipe directory ", path, " belongs to user ", status.st_uid, ", and this process is of user ",
                    ::geteuid(), ". Use a directory of its own.");
    }
    return text("The pipe directory ", path, " is open to other users. Take their rights away (chmod 700 ", path, ").");
}

/// Why there is none: nobody has made it yet, or nobody can.
PipeFacts noDirectory(const std::string& directory, const std::string& path) {
    const std::string above = directory.substr(0, directory.find_last_of('/'));
    const std::string nothing = text("There is no pipe directory ", directory);
    if (::faccessat(AT_FDCWD, above.empty() ? "/" : above.c_str(), W_OK | X_OK, AT_EACCESS) == 0) {
        return {State::NO_DIRECTORY, path, nothing + ". A server makes it."};
    }
    return {
        State::NO_DIRECTORY, path,
        text(nothing, ", and it cannot be made: ", textOf(errno),
             ". Make the directories above it, which this user may write to, or name another one in QVTP_PIPE_DIR.")};
}

/// Why the directory was refused.
PipeFacts refusedDirectory(const PipeAddress& address, const std::string& path) {
    const std::string& directory = address.directoryPath();
    struct stat status {};
    if (::lstat(directory.c_str(), &status) == 0) {
        return {State::BAD_DIRECTORY, path, describeDirectory(directory, status)};
    }
    const int error = errno;
    if (error == ENOENT) return noDirectory(directory, path);
    return {State::BAD_DIRECTORY, path,
            text("The pipe directory ", directory, " cannot be looked at: ", textOf(error),
                 ". Let this user enter the directories above it, or name another one in QVTP_PIPE_DIR.")};
}

/// Whether the directory or its path is to blame, and not a shortage, of descriptors for one.
bool isOfTheDirectory(int error) {
    return error == SystemError::ACCESS_DENIED || error == SystemError::FILE_NOT_FOUND ||
           error == SystemError::NAME_TOO_LONG;
}

PipeFacts unknownDirectory(const PipeAddress& address, const std::string& path, int error) {
    return {State::UNKNOWN, path,
            text("The pipe directory ", address.directoryPath(), " cannot be opened: ", textOf(error), ".")};
}

PipeFacts withoutLockFile(const std::string& path, int error) {
    if (error == ENOENT) return {State::FREE, path, {}};
    const std::string lock = path.substr(0, path.rfind('.')) + ".lock";
    if (error == EACCES || error == ELOOP) {
        return {State::BAD_DIRECTORY, path,
                text("The lock file ", lock, " is no regular file that this user may open: ", textOf(error),
                     ". Remove it.")};
    }
    return {State::UNKNOWN, path, text("The lock file ", lock, " cannot be looked at: ", textOf(error), ".")};
}

}  // namespace

PipeFacts findPipeFacts(const std::string& pipeName) {
    PipeAddress address;
    const int error = address.resolve(pipeName, PipeAddress::Directory::MUST_EXIST);
    const int systemsError = errno;
    if (error == SystemError::INVALID_NAME || address.socketFile().empty()) return badName(pipeName, error);
    const std::string path = address.directoryPath() + "/" + address.socketFile();
    if (isOfTheDirectory(error)) return refusedDirectory(address, path);
    if (error != SystemError::NONE) return unknownDirectory(address, path, systemsError);
    const Descriptor lock = address.openLockFile(O_RDONLY);
    if (!lock.isOpen()) return withoutLockFile(path, errno);
    struct flock query {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    // A question that never takes the lock, so that a server starting at this moment is not disturbed.
    const bool isKnown = uninterrupted([&] { return ::fcntl(lock.get(), F_OFD_GETLK, &query); }) == 0;
    return {isKnown && query.l_type != F_UNLCK ? State::SERVED : State::FREE, path, {}};
}

std::int64_t currentProcessId() {
    return System::currentProcessId();
}

}  // namespace Quovane::Io
