#pragma once

#include <cstddef>
#include <string>

namespace Quovane::Soa::Common::Xml {

/// A growing byte stream in memory.
class StringStream {
  public:
    void write(const char* data, std::size_t length);
    /// Stores everything written so far.
    void str(std::string& contents) const;

  private:
    std::string contents_;
};

}  // namespace Quovane::Soa::Common::Xml
