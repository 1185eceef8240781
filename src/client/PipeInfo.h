#pragma once

#include <qvtp/io/QvPipe.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Quovane::Internal::Qvtp {

/// One pipe of the pool and what belongs to it. Whoever deletes it closes the connection.
class PipeInfo {
  public:
    PipeInfo(const std::string& poolKey, const std::string& bindingName);
    PipeInfo(const PipeInfo&) = delete;
    PipeInfo& operator=(const PipeInfo&) = delete;
    virtual ~PipeInfo();

    /// Gives the pipe's streams their buffers.
    void installBuffers(bool readable, bool writable);

    std::unique_ptr<Quovane::Io::QvPipe> pipe;
    std::int64_t lastUsedMs = 0;  // wall clock of the last return; 0: never returned
    bool isIdle = false;
    std::string key;
    std::string binding;            // names the pipe in log lines
    const std::uint32_t processId;  // of the process that made it, the only one that may use the connection

  private:
    std::unique_ptr<char[]> inputBuffer_;
    std::unique_ptr<char[]> outputBuffer_;
};

}  // namespace Quovane::Internal::Qvtp
