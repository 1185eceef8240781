#pragma once

#include <qvtp/Export.h>

#include <ios>
#include <string>

namespace Quovane::Io {

/// A failure of a pipe or of a message that travels on one: the base of the transport's exceptions.
///
/// It is a failure of a standard stream, and a stream over a pipe reports it like any other stream. Its bases are
/// std::ios_base::failure, std::system_error, std::runtime_error and std::exception: each of them catches it too.
/// The accessors are not const: catch it by plain reference, `catch (QvPipeException& e)`.
/// Objects are values; one object is used by one thread at a time.
class QVTP_API QvPipeException : public std::ios_base::failure {
  public:
    /// A failure with this text and code 0.
    explicit QvPipeException(const std::string& message);
    /// A failure with this text and code. The message parser uses 1011 (no usable body length) and 1013 (no head).
    QvPipeException(const std::string& message, int code);
    QvPipeException(const QvPipeException& other);
    QvPipeException& operator=(const QvPipeException& other);
    ~QvPipeException() override;

    /// The text given to the constructor, with nothing added (unlike what()).
    std::string getMessage();
    /// The code given to the constructor, 0 if none was.
    int getCode();

  private:
    std::string message_;
    int code_;
};

}  // namespace Quovane::Io
