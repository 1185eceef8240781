#pragma once

/// What the back ends do differently, each difference with its reason in docs/porting.md. One source of contract tests
/// serves all of them; BackEnd_linux.cpp or BackEnd_win32.cpp answers.
namespace qvtp_test::backend {

/// Whether a second first instance of a name is refused.
bool refusesSecondFirstInstance();
/// Whether a client of the wrong direction is refused while every instance is busy, instead of waiting.
bool refusesWrongDirectionWhenBusy();
/// Whether clients that wait are released when the server's last instance closes, not only by their time-out.
bool releasesWaitersOnClose();
/// Whether bytes that arrive after a timed-out read are there for the next read.
bool keepsBytesAfterTimedOutRead();
/// Whether the place of an accepted client is free at once, also if the server creates no next instance.
bool freesPlaceOnAccept();
/// Whether a write of a few hundred KB completes without a reader.
bool buffersMoreThanAPipe();
/// Whether a stale handle can never reach a pipe that was opened later.
bool neverReusesHandles();
/// Whether "a" and "a." and "a/../b" are three names.
bool keepsNamesAsTheyAre();
/// Whether an operation that a close ends always reports it.
bool alwaysReportsAborts();
/// The longest name a server can have; a longer one is refused.
int longestName();
/// What creating an instance of the empty name returns.
int emptyNameError();

}  // namespace qvtp_test::backend
