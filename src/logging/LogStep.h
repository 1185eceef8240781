#pragma once

#include <new>
#include <stdexcept>

namespace Quovane::Internal::Qvtp {

/// Runs a step of a log call. Without the memory for it what it would log is dropped: logging never fails its caller.
/// False if so.
template <typename Step>
bool logStep(const Step& step) {
    try {
        step();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
}

}  // namespace Quovane::Internal::Qvtp
