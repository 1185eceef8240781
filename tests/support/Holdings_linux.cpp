#include "support/Holdings.h"

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <fstream>

namespace qvtp_test {

namespace {

int entriesOf(const char* directory) {
    int count = 0;
    DIR* dir = ::opendir(directory);
    while (::readdir(dir) != nullptr) ++count;
    ::closedir(dir);
    return count;
}

}  // namespace

const int Holdings::LATE_HANDLES = 0;

Holdings Holdings::now() {
    Holdings holdings;
    ::malloc_trim(0);
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    holdings.memoryKb = resident * (::sysconf(_SC_PAGESIZE) / 1024);
    holdings.threads = entriesOf("/proc/self/task");
    holdings.handles = entriesOf("/proc/self/fd");
    return holdings;
}

}  // namespace qvtp_test
