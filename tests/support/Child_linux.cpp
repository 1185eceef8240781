#include "support/Child.h"

#include <sys/wait.h>
#include <unistd.h>

namespace qvtp_test {

int startChild(const std::function<int()>& action) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::alarm(60);
    int result = 255;
    try {
        result = action();
    } catch (...) {
        ::_exit(result);
    }
    ::_exit(result);
}

int resultOf(int child) {
    int status = 0;
    if (::waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int resultInChild(const std::function<int()>& action) {
    return resultOf(startChild(action));
}

}  // namespace qvtp_test
