#pragma once

#include "common/StringStream.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Quovane::Internal::Qvtp {

/// What the logs say of a body that was written: how much and how fast, and in the communication log the body itself.
class BodyRecord {
  public:
    BodyRecord();
    ~BodyRecord();

    /// The first byte is about to be written.
    void start();
    void add(const char* data, std::size_t length);
    /// Logs the whole body, if the level is on.
    void log();

  private:
    std::int64_t startTimeMs_ = 0;
    std::uint64_t bytes_ = 0;
    std::unique_ptr<Quovane::Soa::Common::Xml::StringStream> capture_;  // for the communication log, if it is on
};

}  // namespace Quovane::Internal::Qvtp
