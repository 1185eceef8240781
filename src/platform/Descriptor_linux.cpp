#include "platform/Descriptor_linux.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace Quovane::Internal::Qvtp {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = other.release();
    }
    return *this;
}

int Descriptor::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void Descriptor::reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

Descriptor Descriptor::event() {
    return Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

void Descriptor::signal() const {
    const std::uint64_t one = 1;
    // It can only fail when the counter is full, and then the event is signalled already.
    [[maybe_unused]] const auto written = ::write(fd_, &one, sizeof one);
}

void Descriptor::unsignal() const {
    std::uint64_t count = 0;
    // It can only fail when the event is not signalled.
    [[maybe_unused]] const auto taken = ::read(fd_, &count, sizeof count);
}

}  // namespace Quovane::Internal::Qvtp
