#pragma once

/// Switches the logs on as the environment says, so that a program need not be built anew to be looked into:
///
///     QVTP_LOG=LEVEL[:FILE]                     ERROR, WARN, INFO or DEBUG
///     QVTP_COMMUNICATION_LOG=DIRECTION[:FILE]   INPUT, OUTPUT or BOTH
///
/// They go to the end of the file, without one to standard error. A value that cannot be used is reported there, and
/// has no effect. Programs that run with more rights than their user has do not look at them.
namespace Quovane::Internal::Qvtp::EnvironmentLog {

/// Once, before main().
void apply();

}  // namespace Quovane::Internal::Qvtp::EnvironmentLog
