#pragma once

#include "common/Utf8String.h"
#include "message/QvtpHeader.h"

#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// The headers of one message. Names match without regard to case and to white space around them; iteration and writing
/// follow the byte order of the upper-cased names, never the order of addition. No operation fails.
class HeaderBlock {
  public:
    using Utf8String = Quovane::Soa::Common::Xml::Utf8String;

    std::string getHeader(std::string_view name) const;
    std::vector<std::string> getHeaders(std::string_view name) const;
    std::vector<std::string> getHeaderNames() const;

    void addHeader(std::string_view name, std::string_view value);
    void setHeader(std::string_view name, std::string_view value);
    void removeHeader(std::string_view name);

    /// Appends the block's lines, without the empty line after it.
    void write(std::string& out, const Utf8String& converter) const;
    /// Adds the headers of all lines up to the empty one, which it consumes, and records the lines in the communication
    /// log. Throws as StreamUtil::readLine.
    void read(std::istream& in, const Utf8String& converter);

  private:
    struct Entry {
        Entry() = default;
        Entry(std::string_view name, std::string_view value);
        /// What the name is compared by, without regard to case.
        std::string_view key() const { return oddKey.empty() ? std::string_view(header.getName()) : oddKey; }

        QvtpHeader header;
        std::string oddKey;  // if it is not the name
    };
    using Entries = std::vector<Entry>;

    Entries::iterator find(std::string_view name);
    const QvtpHeader* headerOf(std::string_view name) const;
    void insert(Entry entry);
    void sortOut();
    void sortOutWhatThereIs() noexcept;
    static Entry readHeader(std::istream& in, const std::string& line, const Utf8String& converter);

    Entries entries_;  // in the order of their upper-cased keys: messages have few headers
};

}  // namespace Quovane::Internal::Qvtp
