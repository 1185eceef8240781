#pragma once

#include "platform/Descriptor_linux.h"

#include <cstdint>
#include <string>

namespace Quovane::Internal::Qvtp {

/// Reports that a file may have lost its name, to whoever waits. It is a hint: who is woken looks at the files. Where
/// the system grants no watch, nobody is woken.
class FileWatch {
  public:
    /// Watches this file from now on, not what a link points to. False if the system refuses.
    bool addFile(const std::string& path);
    /// The same for a directory, if the system grants it.
    void addDirectory(const std::string& path);
    /// Ready to be read after something has happened; -1 while there is no watch. It stays the same once there is one.
    int descriptor() const { return watch_.get(); }
    /// Whether something has happened.
    bool hasReported() const;
    /// Takes back what was reported.
    void clear() const;

  private:
    bool add(const std::string& path, std::uint32_t changes);

    Descriptor watch_;
};

}  // namespace Quovane::Internal::Qvtp
