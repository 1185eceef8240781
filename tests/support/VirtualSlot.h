#pragma once

#include <cstddef>
#include <cstring>

namespace qvtp_test {

/// The position of a virtual function in its class's table, counted from the first function after the destructor.
/// By the rules of the Itanium C++ ABI, which every compiler that builds this library follows: a pointer to a virtual
/// member holds one more than the function's offset in the table, where a virtual destructor takes two places.
template <typename Member>
int virtualSlot(Member member) {
    static_assert(sizeof member >= sizeof(std::ptrdiff_t));
    std::ptrdiff_t representation = 0;
    std::memcpy(&representation, &member, sizeof representation);
    if (representation % 2 == 0) return -1;  // not virtual
    return static_cast<int>((representation - 1) / static_cast<std::ptrdiff_t>(sizeof(void*))) - 1;
}

}  // namespace qvtp_test
