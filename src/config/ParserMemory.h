#pragma once

#include <new>

namespace Quovane::Internal::Qvtp {

/// A reserve of memory for the start of the parser library: while it is in scope, the first allocation of the
/// process that fails is tried again with the reserve given up. One at a time.
class ParserMemory {
  public:
    /// Throws std::bad_alloc if there is not so much.
    ParserMemory();
    ParserMemory(const ParserMemory&) = delete;
    ParserMemory& operator=(const ParserMemory&) = delete;
    ~ParserMemory();

  private:
    std::new_handler handlerBefore_;
};

}  // namespace Quovane::Internal::Qvtp
