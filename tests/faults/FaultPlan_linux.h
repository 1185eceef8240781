#pragma once

#include "faults/FaultShim.h"

#include <dlfcn.h>

/// What the functions of the shim ask before each call.
namespace qvtp_test::faults {

/// Whether this call has to fail. `function` is a literal: one pointer for each function.
bool mustFail(Kind kind, const char* function);

/// Whether this call has to be interrupted. It never is twice in a row on a thread.
bool mustInterrupt();

/// How many bytes this call may move.
std::size_t limited(std::size_t size);

int variant();

unsigned sideOfThisThread();

template <typename Function>
Function hidden(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace qvtp_test::faults
