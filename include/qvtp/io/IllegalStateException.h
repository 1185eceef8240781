#pragma once

#include <qvtp/Export.h>

#include <string>

namespace Quovane::Io {

/// A call that the object's state does not allow: a mistake in the program, not a failure of the pipe.
/// It has no base class; `catch (const std::exception&)` does not catch it.
class QVTP_API IllegalStateException {
  public:
    explicit IllegalStateException(const std::string& message);
    IllegalStateException(const std::string& message, int code);
    IllegalStateException(const IllegalStateException& other);
    IllegalStateException& operator=(const IllegalStateException& other);
    virtual ~IllegalStateException();

    /// The text given to the constructor.
    std::string getMessage() const;
    /// The code given to the constructor, 0 if none was.
    int getCode() const;

  private:
    std::string message_;
    int code_;
};

}  // namespace Quovane::Io
