#include "FuzzedMessage.h"
#include "message/DirectionLabel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    qvtp_fuzz::readMessage(data, size, Quovane::Internal::Qvtp::DirectionLabel::ACCEPT);
    return 0;
}
