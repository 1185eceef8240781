#pragma once

#include <cstdint>

/// What the back ends do differently, each difference with its reason in docs/porting.md. One source of contract tests
/// serves all of them; BackEnd_linux.cpp or BackEnd_win32.cpp answers.
namespace qvtp_test::backend {

/// Whether a second first instance of a name is refused.
bool refusesSecondFirstInstance();
/// Whether a client of the wrong direction is refused while every instance is busy, instead of waiting.
bool refusesWrongDirectionWhenBusy();
/// Whether clients that wait are released when the server's last instance closes, not only by their time-out.
bool releasesWaitersOnClose();
/// Whether the place of an accepted client is free at once, also if the server creates no next instance.
bool freesPlaceOnAccept();
/// Whether a write of a few hundred KB completes without a reader.
bool buffersMoreThanAPipe();
/// Whether a reader that takes some bytes gives a large write more time.
bool renewsWriteTimeOnProgress();
/// Whether a write that timed out still reaches a late reader as a whole, and not only what a buffer had taken.
bool deliversTimedOutWrites();
/// Whether the reading of a connection can be ended on its own, so that the peer's next write breaks.
bool closesHalfOfAPipe();
/// Whether a wait for input finds out by itself that its handle does not read.
bool knowsDirectionOfWaits();
/// Whether a client that has connected, and waits for the accept, can be seen.
bool showsWaitingClients();
/// Whether accepts, reads and writes take memory, and may fail for want of it.
bool needsMemoryToTransfer();
/// Whether "a" and "a." and "a/../b" are three names.
bool keepsNamesAsTheyAre();
/// The length of a name that is too long. 247 bytes are documented to work.
int tooLongName();
/// What opening such a name fails with.
int longNameOpenError();
/// What creating an instance of the empty name returns.
int emptyNameError();
/// Whether a client can open the empty name.
bool opensTheEmptyName();

/// Who this process is, as far as the system says it about a client; -1 where it does not.
std::int64_t ownUserId();
std::int64_t ownGroupId();

}  // namespace qvtp_test::backend
