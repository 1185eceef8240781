#pragma once

#include "platform/Descriptor_linux.h"
#include "platform/PipeAddress_linux.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace Quovane::Internal::Qvtp {

/// A pipe name that this process serves: the lock that keeps other servers away, and the one listening socket that all
/// waiting instances of the name share. It lives as long as there is a server end of the name, waiting or accepted.
/// Every function is called with namesMutex() held.
class ServedName {
  public:
    /// Guards every ServedName and the state of the pipe objects that belong to one.
    static std::mutex& namesMutex();

    /// Adds a waiting instance to the name, taking the name first if this process does not serve it. `event` receives
    /// the instance's event. Returns 0 or the number of a SystemError; on failure everything is as it was, also when
    /// memory runs out.
    static int addInstance(PipeAddress address, char direction, bool first, std::shared_ptr<ServedName>& name,
                           Descriptor& event);
    /// The same for a name that this process serves. It looks nothing up.
    int addInstance(char direction, Descriptor& event);

    /// The byte of the lock file, from which clients see what they may do: '1' the server reads, '2' it writes, '3'
    /// both.
    static char directionOf(bool readable, bool writable) {
        return static_cast<char>('0' + (readable ? 1 : 0) + (writable ? 2 : 0));
    }

    std::shared_ptr<Descriptor> listener() const { return listener_; }

    /// Makes sure that the next instance will have an event, so that running out of descriptors is met before a client
    /// is taken from the queue and not after. Returns 0 or the number of a SystemError.
    int reserveEvent();

    /// A waiting instance became a connection.
    void instanceConnected();
    /// A server end is closed; `waiting`: it was an instance that still waited. Takes no memory.
    void endClosed(bool waiting);

    ServedName(PipeAddress address, char direction);
    ~ServedName();
    ServedName(const ServedName&) = delete;
    ServedName& operator=(const ServedName&) = delete;

  private:
    bool isOwn() const;
    int takeLock();
    int listen();
    void stopListening();
    void release();
    void updateBacklog();

    PipeAddress address_;
    char direction_;
    std::uint32_t owner_;  // process id: a forked child inherits the descriptors but not the name
    int ends_ = 0;
    int waiting_ = 0;
    int backlog_ = 0;  // of the listener
    Descriptor lock_;
    std::shared_ptr<Descriptor> listener_;  // instances keep it alive while a thread waits on it
    Descriptor reservedEvent_;
};

}  // namespace Quovane::Internal::Qvtp
