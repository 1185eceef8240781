#pragma once

#include "platform/Descriptor_linux.h"

#include <string>

namespace Quovane::Internal::Qvtp {

/// Where the files of one pipe name are: a private directory with `<stem>.lock` and `<stem>.sock` for each name
/// (docs/porting.md says what they mean). Names that differ only in the case of ASCII letters, or in "/" against "\",
/// are one.
class PipeAddress {
  public:
    enum class Directory { MUST_EXIST, CREATE };

    /// Finds the files of a pipe path and opens their directory, which must belong to the caller alone. Returns 0 or
    /// the number of a SystemError.
    int resolve(const std::string& pipePath, Directory directory);

    /// Directory and stem: what identifies the name within this process.
    std::string key() const { return directoryPath_ + "/" + stem_; }
    int directory() const { return directory_.get(); }
    std::string lockFile() const { return stem_ + ".lock"; }
    std::string socketFile() const { return stem_ + ".sock"; }
    /// The name under which a socket is bound before it listens.
    std::string freshSocketFile() const { return stem_ + ".new"; }
    /// A path to a file of the directory that fits into a socket address, however long the directory's own path is.
    std::string socketPath(const std::string& file) const;

  private:
    int openDirectory(Directory directory);

    std::string directoryPath_;
    std::string stem_;
    Descriptor directory_;
};

}  // namespace Quovane::Internal::Qvtp
