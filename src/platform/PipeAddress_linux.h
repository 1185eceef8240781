#pragma once

#include "platform/Descriptor_linux.h"

#include <sys/stat.h>

#include <string>

namespace Quovane::Internal::Qvtp {

/// Which file it is that has a name.
struct FileId {
    FileId() = default;
    explicit FileId(const struct stat& status) : device(status.st_dev), inode(status.st_ino) {}
    bool operator==(const FileId& other) const { return device == other.device && inode == other.inode; }

    dev_t device = 0;
    ino_t inode = 0;
};

/// Where the files of one pipe name are: a private directory with `<stem>.lock` and `<stem>.sock` for each name
/// (docs/porting.md says what they mean). Names that differ only in the case of ASCII letters, or in "/" against "\",
/// are one.
///
/// A server's is found once and then kept: neither the environment nor the user, the current directory or the
/// directory's mode matter to it any more. A client's is for one connection, and needs no descriptor where the path of
/// the directory is all that its calls need.
class PipeAddress {
  public:
    enum class Directory { MUST_EXIST, CREATE };

    /// Finds the files of a pipe path. Their directory must belong to the caller alone, which is tested each time.
    /// CREATE is for a server, MUST_EXIST for a client. Returns 0 or the number of a SystemError.
    int resolve(const std::string& pipePath, Directory directory);

    /// Whether the directory is the one that was found. Another one in its place has not been tested.
    bool isStillThere() const;

    /// Whether both are one name in one directory, whatever the path on which each was found.
    bool isSame(const PipeAddress& other) const;

    /// The path of the directory, and of a file of it, as people know them. Empty if the pipe has no possible name.
    const std::string& directoryPath() const { return directoryPath_; }
    std::string pathInLog(const std::string& file) const { return directoryPath_ + "/" + file; }

    // Of a server's address.
    int directory() const { return directory_.get(); }
    /// Which file has this name in the directory. False with errno set if that cannot be told.
    bool identify(const std::string& file, FileId& id) const;
    /// Whether the file still has its name. LOST: nothing has it, or another file. UNKNOWN: that cannot be told.
    enum class Look { THERE, LOST, UNKNOWN };
    Look lookFor(const std::string& file, const FileId& id) const;
    bool hasLost(const std::string& file, const FileId& id) const { return lookFor(file, id) == Look::LOST; }
    /// Whether clients that look for the directory find nothing, or another one.
    bool hasLostDirectory() const;
    /// The same name in the directory that is there now, which is made if there is none. Returns 0 or the number of a
    /// SystemError.
    int findAgain(PipeAddress& found) const;

    /// Opens the name's lock file with these flags of open(2), or returns a closed descriptor with errno set. It must
    /// be a regular file: what somebody else has put in its place, which may block whoever opens it, is EACCES.
    Descriptor openLockFile(int flags) const;
    const std::string& lockFile() const { return lockFile_; }
    const std::string& socketFile() const { return socketFile_; }
    /// Whether there is any file of the socket's name.
    bool hasSocketFile() const;
    /// The name under which a socket is bound before it listens.
    const std::string& freshSocketFile() const { return freshSocketFile_; }
    /// A path to a file of the directory that fits into a socket address and does not depend on the current directory.
    std::string socketPath(const std::string& file) const;
    /// Whether the directory's path leads there whatever the current directory is.
    bool isPathAbsolute() const { return directoryPath_[0] == '/'; }

  private:
    int openDirectory(Directory directory);
    int lookAtDirectory();
    int check(const struct stat& directory);
    bool isReachedByPath(const std::string& file) const;
    int base() const;
    std::string pathOf(const std::string& file) const;

    std::string directoryPath_;
    Descriptor directory_;  // closed if the path is all that is needed
    FileId directoryId_;
    // Made once: a name is given up without any memory.
    std::string lockFile_;
    std::string socketFile_;
    std::string freshSocketFile_;
};

}  // namespace Quovane::Internal::Qvtp
