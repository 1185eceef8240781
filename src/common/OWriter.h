#pragma once

namespace Quovane::Soa::Internal::Common {

/// Something that bytes of one message are written to, and that is told when the message ends.
class OWriter {
  public:
    virtual ~OWriter();
    /// Takes all `length` bytes (0 or more) and returns how many it took.
    virtual int write(const char* data, long long length) = 0;
    /// Passes on what is held back.
    virtual void flush() = 0;
    /// Ends the message. Nothing may be written afterwards.
    virtual void send() = 0;
};

}  // namespace Quovane::Soa::Internal::Common
