#pragma once

namespace Quovane::Internal::Qvtp {

/// Owns one file descriptor and closes it.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor() { reset(); }

    int get() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }
    int release();
    void reset();

    /// A new event, or a closed descriptor with errno set.
    static Descriptor event();
    /// Makes every wait on the event end, now and later.
    void signal() const;
    /// Takes the signal of an event back.
    void unsignal() const;

  private:
    int fd_ = -1;
};

}  // namespace Quovane::Internal::Qvtp
