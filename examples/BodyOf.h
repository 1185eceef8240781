#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace example {

/// The whole body of a request or response. getBody() gives an array that is its caller's, freed with delete[].
template <typename Message>
std::string bodyOf(Message& message) {
    char* data = nullptr;
    std::size_t length = 0;
    message.getBody(&data, length);
    const std::unique_ptr<char[]> owner(data);
    return std::string(data, length);
}

}  // namespace example
