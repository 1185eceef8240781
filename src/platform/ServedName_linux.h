#pragma once

#include "platform/Descriptor_linux.h"
#include "platform/FileWatch_linux.h"
#include "platform/NameLock_linux.h"
#include "platform/PipeAddress_linux.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// What has become of a name whose files were removed.
struct NameNews {
    enum class Kind { NONE, REMOVED, TAKEN_AGAIN };

    Kind kind = Kind::NONE;
    std::string path;  // what was removed, or the socket that is there again
    int error = 0;     // of REMOVED: 0 if the name was taken again at once, or the number of a SystemError
};

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

    /// Where the next client is taken from; null when no instance waits.
    std::shared_ptr<Descriptor> queue() const { return formerQueues_.empty() ? listener_ : formerQueues_.front(); }
    /// Whether no more clients come to the queue. Those that it has are taken first. Then it is left.
    bool isFormer(const std::shared_ptr<Descriptor>& queue) const { return queue != listener_; }
    void leaveQueue(const std::shared_ptr<Descriptor>& queue);

    // Others may remove the files under a server that lives: whoever cleans a directory up, for one. Nobody reaches it
    // then, and others may take its name. It takes the name anew. If another server was faster, that one has the name,
    // and this one goes on with the connections that it has.

    /// Whether files are gone that were there at the last look. `thorough`: looks at the directory too, which may have
    /// another path now. Otherwise it looks at nothing if the files were there at the last look and their watch
    /// has been silent since.
    bool hasLostFiles(bool thorough);
    /// Takes the name anew if files are gone. Reports each removal once.
    NameNews takeAgain();
    /// Whether the name could not be taken anew and should be tried again.
    bool isToBeTakenAgain() const { return hold_ == Hold::LOST; }
    /// Wakes who waits for clients when hasLostFiles() is to be asked; without a descriptor, that can only be asked
    /// from time to time.
    int watch() const { return watch_.descriptor(); }
    /// Takes back what the watch has reported. Then hasLostFiles() looks.
    void clearWatch();

    /// A waiting instance became a connection. That needs no event: the next instance has it, so that no client is
    /// taken from the queue while there is no descriptor for the next one.
    void instanceConnected(Descriptor event);
    /// A server end is closed; `waiting`: it was an instance that still waited. Takes no memory.
    void endClosed(bool waiting);

    ServedName(PipeAddress address, char direction);
    ~ServedName();
    ServedName(const ServedName&) = delete;
    ServedName& operator=(const ServedName&) = delete;

  private:
    enum class Hold { WHOLE, LOST, LEFT_TO_ANOTHER };

    bool isOwn() const;
    int renew();
    int renewOrRunShort();
    int takeLock(const PipeAddress& address, NameLock& lock);
    int listen(const PipeAddress& address);
    void watchFiles();
    std::string lostPath() const;
    void stopListening();
    void updateBacklog();

    PipeAddress address_;
    char direction_;
    std::uint32_t owner_;  // process id: a forked child inherits the descriptors but not the name
    int ends_ = 0;
    int waiting_ = 0;
    int backlog_ = 0;  // of the listener
    NameLock lock_;
    std::shared_ptr<Descriptor> listener_;                   // a thread that waits on it keeps it alive
    FileId socketId_;                                        // of the listener's file
    std::vector<std::shared_ptr<Descriptor>> formerQueues_;  // those of sockets whose files are gone
    Hold hold_ = Hold::WHOLE;
    FileWatch watch_;
    bool isWatched_ = false;  // both files are
    bool isQuiet_ = false;    // the last look found both, and nothing was taken back from the watch since
    Descriptor keptEvent_;    // for the next instance
};

}  // namespace Quovane::Internal::Qvtp
