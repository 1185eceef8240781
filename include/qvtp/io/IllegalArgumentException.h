#pragma once

#include <qvtp/Export.h>

#include <string>

namespace Quovane::Io {

/// A call with an argument that no call may have: a mistake in the program, not a failure of the pipe.
/// It has no base class: `catch (const std::exception&)` does not see it. It has no accessors: its text is for whoever
/// reads the place that throws it.
class QVTP_API IllegalArgumentException {
  public:
    explicit IllegalArgumentException(const std::string& message);
    IllegalArgumentException(const std::string& message, int code);
    IllegalArgumentException(const IllegalArgumentException& other);
    IllegalArgumentException& operator=(const IllegalArgumentException& other);
    virtual ~IllegalArgumentException();

  private:
    std::string message_;
    [[maybe_unused]] int code_;
};

}  // namespace Quovane::Io
