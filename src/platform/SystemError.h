#pragma once

/// The numbers that log lines and result codes use for failures of the system. They are the same on every platform, so
/// that one log reader serves all.
namespace Quovane::Internal::Qvtp::SystemError {

inline constexpr int NONE = 0;
inline constexpr int FILE_NOT_FOUND = 2;
inline constexpr int TOO_MANY_OPEN_FILES = 4;
inline constexpr int ACCESS_DENIED = 5;
inline constexpr int INVALID_HANDLE = 6;
inline constexpr int NOT_ENOUGH_MEMORY = 8;
inline constexpr int GENERAL_FAILURE = 31;
inline constexpr int BROKEN_PIPE = 109;
inline constexpr int INVALID_NAME = 123;
inline constexpr int NAME_TOO_LONG = 206;
inline constexpr int NO_DATA = 232;
inline constexpr int PIPE_CONNECTED = 535;
inline constexpr int PIPE_LISTENING = 536;
inline constexpr int OPERATION_ABORTED = 995;
inline constexpr int IO_PENDING = 997;

}  // namespace Quovane::Internal::Qvtp::SystemError
