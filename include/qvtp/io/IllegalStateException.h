#pragma once

#include <qvtp/Export.h>

#include <string>

namespace Quovane::Io {

/// A call that the object's state does not allow: a mistake in the program. One case is none.
///
/// A request throws it also for a connection that broke after the head of a request with a whole body was sent: "The
/// start line and headers have already been committed to the request. Cannot send again." The server may have acted on
/// that request or not. So a program without mistakes can meet it too.
///
/// It has no base class: `catch (const std::exception&)` does not see it. Give it a clause of its own:
///
///     } catch (QvPipeException& e) {              // the transport
///     } catch (const IllegalStateException& e) {  // a mistake, or a connection that broke after the head
///     }
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
