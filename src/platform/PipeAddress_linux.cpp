#include "platform/PipeAddress_linux.h"

#include "platform/Interruption_linux.h"
#include "platform/PipePlatform.h"
#include "platform/SystemError_linux.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr std::size_t MAX_NAME_LENGTH = 247;  // what the documented limit of 256 leaves beside the prefix
constexpr std::size_t MAX_STEM_LENGTH = 60;
constexpr std::size_t STEM_HEAD_LENGTH = 24;
constexpr std::size_t MAX_SOCKET_PATH = sizeof(sockaddr_un::sun_path) - 1;

std::string bareName(const std::string& pipePath) {
    const std::string_view prefix = PIPE_PATH_PREFIX;
    return pipePath.compare(0, prefix.size(), prefix) == 0 ? pipePath.substr(prefix.size()) : pipePath;
}

std::string folded(std::string name) {
    for (char& c : name) {
        if (c == '/') c = '\\';
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return name;
}

void appendHex(std::string& out, std::uint64_t value, int digits) {
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) out += "0123456789abcdef"[(value >> shift) & 0xF];
}

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

/// FNV-1a with 128 bits, as 32 hexadecimal digits. The prime is 2^88 + 0x13b.
std::string hash(const std::string& name) {
    constexpr std::uint64_t LOW_PRIME = 0x13b;
    std::uint64_t high = 0x6c62272e07bb0142;
    std::uint64_t low = 0x62b821756295c58d;
    for (char c : name) {
        low ^= static_cast<unsigned char>(c);
        const std::uint64_t lowHalf = (low & 0xFFFFFFFF) * LOW_PRIME;
        const std::uint64_t highHalf = (low >> 32) * LOW_PRIME + (lowHalf >> 32);
        high = high * LOW_PRIME + (low << 24) + (highHalf >> 32);
        low = (highHalf << 32) | (lowHalf & 0xFFFFFFFF);
    }
    std::string digits;
    appendHex(digits, high, 16);
    appendHex(digits, low, 16);
    return digits;
}

std::string stemOf(const std::string& name) {
    const std::string key = folded(name);
    std::string stem;
    for (char c : key) {
        if (isPlain(c) || (c == '.' && !stem.empty())) {
            stem += c;
        } else {
            stem += '%';
            appendHex(stem, static_cast<unsigned char>(c), 2);
        }
    }
    if (stem.size() <= MAX_STEM_LENGTH) return stem;
    return stem.substr(0, STEM_HEAD_LENGTH) + "~" + hash(key);
}

/// Not derived from TMPDIR, HOME or XDG_RUNTIME_DIR: client and server may have different ones.
std::string chosenDirectory() {
    const char* chosen = std::getenv("QVTP_PIPE_DIR");
    if (chosen != nullptr && *chosen != '\0') return chosen;
    return "/tmp/qvtp-pipe-" + std::to_string(::geteuid());
}

/// A directory that others can write to, or that another user made, would let them put their own sockets there.
bool isPrivate(const struct stat& status) {
    return S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

}  // namespace

int PipeAddress::resolve(const std::string& pipePath, Directory directory) {
    const std::string name = bareName(pipePath);
    if (name.empty()) return SystemError::INVALID_NAME;
    if (name.size() > MAX_NAME_LENGTH) return SystemError::NAME_TOO_LONG;
    const std::string stem = stemOf(name);
    lockFile_ = stem + ".lock";
    socketFile_ = stem + ".sock";
    freshSocketFile_ = stem + ".new";
    directoryPath_ = chosenDirectory();
    const bool needsDescriptor = directory == Directory::CREATE || !isReachedByPath(socketFile_);
    return needsDescriptor ? openDirectory(directory) : lookAtDirectory();
}

int PipeAddress::openDirectory(Directory directory) {
    if (directory == Directory::CREATE && ::mkdir(directoryPath_.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return SystemError::fromErrno(errno);
    }
    const auto open = [&] { return ::open(directoryPath_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); };
    directory_ = Descriptor(uninterrupted(open));
    if (!directory_.isOpen()) {
        // A file or a symbolic link in the directory's place is somebody's attempt, not a missing directory.
        const bool isOther = errno == ENOTDIR || errno == ELOOP;
        return isOther ? SystemError::ACCESS_DENIED : SystemError::fromErrno(errno);
    }
    struct stat status {};
    if (::fstat(directory_.get(), &status) != 0) return SystemError::ACCESS_DENIED;
    return check(status);
}

/// The same tests without a descriptor.
int PipeAddress::lookAtDirectory() {
    struct stat status {};
    if (::lstat(directoryPath_.c_str(), &status) == 0) return check(status);
    return errno == ENOTDIR || errno == ELOOP ? SystemError::ACCESS_DENIED : SystemError::fromErrno(errno);
}

int PipeAddress::check(const struct stat& directory) {
    if (!isPrivate(directory)) return SystemError::ACCESS_DENIED;
    directoryId_ = FileId(directory);
    return SystemError::NONE;
}

bool PipeAddress::isStillThere() const {
    if (directory_.isOpen()) return true;
    struct stat status {};
    return ::lstat(directoryPath_.c_str(), &status) == 0 && FileId(status) == directoryId_;
}

bool PipeAddress::identify(const std::string& file, FileId& id) const {
    struct stat status {};
    if (::fstatat(directory_.get(), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
    id = FileId(status);
    return true;
}

/// Linux reports a removal a moment before the name is gone. Then the file can still be found by it, and has no more
/// names.
PipeAddress::Look PipeAddress::lookFor(const std::string& file, const FileId& id) const {
    struct stat status {};
    if (::fstatat(directory_.get(), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? Look::LOST : Look::UNKNOWN;
    }
    return status.st_nlink > 0 && FileId(status) == id ? Look::THERE : Look::LOST;
}

bool PipeAddress::hasLostDirectory() const {
    struct stat status {};
    if (::fstat(directory_.get(), &status) == 0 && status.st_nlink == 0) return true;
    if (!isPathAbsolute()) return false;
    if (::lstat(directoryPath_.c_str(), &status) == 0) return !(FileId(status) == directoryId_);
    return errno == ENOENT || errno == ENOTDIR;
}

int PipeAddress::findAgain(PipeAddress& found) const {
    if (!isPathAbsolute()) return SystemError::FILE_NOT_FOUND;
    found.directoryPath_ = directoryPath_;
    found.lockFile_ = lockFile_;
    found.socketFile_ = socketFile_;
    found.freshSocketFile_ = freshSocketFile_;
    return found.openDirectory(Directory::CREATE);
}

bool PipeAddress::isSame(const PipeAddress& other) const {
    return directoryId_ == other.directoryId_ && lockFile_ == other.lockFile_;
}

Descriptor PipeAddress::openLockFile(int flags) const {
    const int allFlags = flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    const std::string path = pathOf(lockFile_);
    const auto open = [&] { return ::openat(base(), path.c_str(), allFlags, S_IRUSR | S_IWUSR); };
    const int fd = uninterrupted(open);
    Descriptor file(fd);
    struct stat status {};
    const bool isOther = fd < 0 ? errno == ENXIO || errno == EISDIR  // a socket, a directory
                                : ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode);
    if (!isOther) return file;
    errno = EACCES;
    return Descriptor();
}

bool PipeAddress::hasSocketFile() const {
    struct stat status {};
    return ::fstatat(base(), pathOf(socketFile_).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

/// Where the paths of pathOf() begin.
int PipeAddress::base() const {
    return directory_.isOpen() ? directory_.get() : AT_FDCWD;
}

std::string PipeAddress::pathOf(const std::string& file) const {
    return directory_.isOpen() ? file : directoryPath_ + "/" + file;
}

/// Whether the file's full path fits into a socket address and does not depend on the current directory.
bool PipeAddress::isReachedByPath(const std::string& file) const {
    return isPathAbsolute() && directoryPath_.size() + 1 + file.size() <= MAX_SOCKET_PATH;
}

std::string PipeAddress::socketPath(const std::string& file) const {
    if (isReachedByPath(file)) return directoryPath_ + "/" + file;
    return "/proc/self/fd/" + std::to_string(directory_.get()) + "/" + file;
}

}  // namespace Quovane::Internal::Qvtp
