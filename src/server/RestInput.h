#pragma once

#include <istream>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>

namespace Quovane::Internal::Qvtp {

/// What a client had written before the reading of its connection ended, as a stream.
class RestInput : public std::istream {
  public:
    explicit RestInput(std::string bytes) : std::istream(nullptr), buffer_(std::move(bytes)) { rdbuf(&buffer_); }

    /// What has not been read yet.
    std::string_view unread() const { return buffer_.unread(); }

  private:
    class Buffer : public std::streambuf {
      public:
        explicit Buffer(std::string bytes) : bytes_(std::move(bytes)) {
            setg(bytes_.data(), bytes_.data(), bytes_.data() + bytes_.size());
        }
        std::string_view unread() const { return {gptr(), static_cast<std::size_t>(egptr() - gptr())}; }

      private:
        std::string bytes_;
    };

    Buffer buffer_;
};

}  // namespace Quovane::Internal::Qvtp
