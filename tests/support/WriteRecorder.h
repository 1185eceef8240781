#pragma once

#include <streambuf>
#include <string>
#include <vector>

namespace qvtp_test {

/// A stream buffer of an application: it shows what arrives there, block by block.
class WriteRecorder : public std::streambuf {
  public:
    /// The blocks, and "<flush>" for each flush.
    std::vector<std::string> events;
    /// Where each block was.
    std::vector<const char*> sources;

  protected:
    std::streamsize xsputn(const char* data, std::streamsize length) override {
        events.emplace_back(data, static_cast<std::size_t>(length));
        sources.push_back(data);
        return length;
    }
    int_type overflow(int_type c) override {
        events.emplace_back(1, traits_type::to_char_type(c));
        return c;
    }
    int sync() override {
        events.emplace_back("<flush>");
        return 0;
    }
};

}  // namespace qvtp_test
