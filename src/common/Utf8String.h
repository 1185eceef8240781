#pragma once

#include <string>
#include <string_view>

namespace Quovane::Soa::Common::Xml {

/// Converts header values and resources between the application's strings and the wire. Both are UTF-8, so well-formed
/// text passes unchanged; every byte that is not part of a well-formed sequence is taken as Latin-1 and becomes its
/// two-byte form. The result is always well-formed and nothing is dropped. Any thread may call it.
class Utf8String {
  public:
    /// For the wire: also turns CR, LF and NUL into a blank each (RFC 9110 section 5.5), so that no value or resource
    /// can end its line and smuggle in another header.
    static void encode(const std::string& in, std::string& out);
    /// The same, appended to what `out` holds.
    static void appendEncoded(std::string_view in, std::string& out);
    /// Whether encoding leaves the text as it is. False for some texts that it would leave, too.
    static bool isPlain(std::string_view text);
    /// Whether decoding finds nothing but ASCII, and leaves the text as it is.
    static bool isAscii(std::string_view text);
    /// From the wire.
    static void decode(const std::string& in, std::string& out);
};

}  // namespace Quovane::Soa::Common::Xml
