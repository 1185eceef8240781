#pragma once

#include "platform/Descriptor_linux.h"

#include <cstdint>
#include <string>

namespace Quovane::Internal::Qvtp {

/// Reports that a file may have lost its name, to whoever waits. It is a hint: who is woken looks at the files. Where
/// the system grants no watch, nobody is woken.
class FileWatch {
  public:
    /// Watches this file from now on, or this directory, not what a link points to.
    void addFile(const std::string& path);
    void addDirectory(const std::string& path);
    /// Ready to be read after something has happened; -1 while there is no watch. It stays the same once there is one.
    int descriptor() const { return watch_.get(); }
    /// Takes back what was reported.
    void clear() const;

  private:
    void add(const std::string& path, std::uint32_t changes);

    Descriptor watch_;
};

}  // namespace Quovane::Internal::Qvtp
