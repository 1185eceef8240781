#include "common/CurrentException.h"

#include <exception>

namespace Quovane::Internal::Qvtp {

std::string describeCurrentException() {
    try {
        throw;
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown type";
    }
}

}  // namespace Quovane::Internal::Qvtp
