#pragma once

/// A fuzz target without threads, in which the library waits for nothing. Before each wait the target's peer does what
/// it has to do, on the same thread. If that changes nothing, nothing ever will: then the clock moves on to the end of
/// the wait, which ends as it would have. So an input costs no time-outs, and its outcome is the same each time.
///
/// The linker gives the library's calls of recv, recvmsg and ppoll, and its looks at the clock, to these functions. A
/// wait without a limit for something that will not come ends the program: nobody would ever end that one.
namespace Waits {

class Peer {
  public:
    virtual ~Peer() = default;
    /// False if there is nothing left to do.
    virtual bool act() = 0;
};

/// Whose waits are meant from now on: those of this thread. Null for nobody's; not owned.
void setPeer(Peer* peer);

}  // namespace Waits
