#include "platform/SystemError_linux.h"

#include <cerrno>

namespace Quovane::Internal::Qvtp::SystemError {

int fromErrno(int error) {
    switch (error) {
        case ENOENT:
            return FILE_NOT_FOUND;
        case EMFILE:
        case ENFILE:
            return TOO_MANY_OPEN_FILES;
        case EACCES:
        case EPERM:
        case EROFS:
            return ACCESS_DENIED;
        case EBADF:
            return INVALID_HANDLE;
        case ENOMEM:
        case ENOBUFS:
            return NOT_ENOUGH_MEMORY;
        case ENAMETOOLONG:
            return NAME_TOO_LONG;
        default:
            return GENERAL_FAILURE;
    }
}

bool isShortage(int number) {
    return number == TOO_MANY_OPEN_FILES || number == NOT_ENOUGH_MEMORY;
}

}  // namespace Quovane::Internal::Qvtp::SystemError
