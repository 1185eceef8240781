#include "message/BodyRecord.h"

#include "common/System.h"
#include "logging/Log.h"
#include "message/Throughput.h"

#include <new>
#include <string>

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Common::Xml::StringStream;

BodyRecord::BodyRecord()
    : capture_(isCommunicationEnabled(CommunicationLevel::OUTPUT) ? new (std::nothrow) StringStream : nullptr) {}

BodyRecord::~BodyRecord() = default;

void BodyRecord::start() {
    if (isInfoEnabled()) startTimeMs_ = System::wallClockMs();
}

void BodyRecord::add(const char* data, std::size_t length) {
    bytes_ += length;
    if (capture_ == nullptr || length == 0) return;
    // A record without one of its pieces would mislead its reader: then it is dropped whole.
    if (!logStep([&] { capture_->write(data, length); })) capture_.reset();
}

void BodyRecord::log() {
    if (!isInfoEnabled()) return;
    const std::int64_t nowMs = System::wallClockMs();
    const std::int64_t startMs = startTimeMs_ != 0 ? startTimeMs_ : nowMs;  // not known if the level was off then
    logInfo([&] { return Throughput::describeWritten(bytes_, startMs, nowMs); });
    if (capture_ == nullptr) return;
    logStep([&] {
        capture_->write("\n", 1);
        std::string written;
        capture_->str(written);
        logCommunication(CommunicationLevel::OUTPUT, written, false);
    });
}

}  // namespace Quovane::Internal::Qvtp
