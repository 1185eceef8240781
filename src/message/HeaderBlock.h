#pragma once

#include "common/Utf8String.h"
#include "message/QvtpHeader.h"

#include <istream>
#include <map>
#include <string>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// The headers of one message. Names match without regard to case and to white space around them; iteration and writing
/// follow the byte order of the upper-cased names, never the order of addition. No operation fails.
class HeaderBlock {
  public:
    using Utf8String = Quovane::Soa::Common::Xml::Utf8String;

    std::string getHeader(const std::string& name) const;
    std::vector<std::string> getHeaders(const std::string& name) const;
    std::vector<std::string> getHeaderNames() const;

    void addHeader(const std::string& name, const std::string& value);
    void setHeader(const std::string& name, const std::string& value);
    void removeHeader(const std::string& name);

    /// Appends the block's lines, without the empty line after it.
    void write(std::string& out, const Utf8String& converter) const;
    /// Adds the headers of all lines up to the empty one, which it consumes, and records the lines in the communication
    /// log. Throws as StreamUtil::readLine.
    void read(std::istream& in, const Utf8String& converter);

  private:
    static std::string keyOf(const std::string& name);
    std::string readHeader(std::istream& in, const std::string& line, const Utf8String& converter);

    std::map<std::string, QvtpHeader> headers_;
};

}  // namespace Quovane::Internal::Qvtp
