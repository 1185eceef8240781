#include "platform/BackEnd.h"

#include <unistd.h>

namespace qvtp_test::backend {

bool refusesSecondFirstInstance() {
    return true;
}

bool refusesWrongDirectionWhenBusy() {
    return true;
}

bool releasesWaitersOnClose() {
    return true;
}

bool freesPlaceOnAccept() {
    return true;
}

bool buffersMoreThanAPipe() {
    return true;
}

bool renewsWriteTimeOnProgress() {
    return true;
}

bool deliversTimedOutWrites() {
    return false;
}

bool closesHalfOfAPipe() {
    return true;
}

bool knowsDirectionOfWaits() {
    return true;
}

bool showsWaitingClients() {
    return true;
}

bool needsMemoryToTransfer() {
    return false;
}

bool keepsNamesAsTheyAre() {
    return true;
}

int tooLongName() {
    return 248;
}

int longNameOpenError() {
    return 206;
}

int emptyNameError() {
    return 123;
}

bool opensTheEmptyName() {
    return false;
}

std::int64_t ownUserId() {
    return ::geteuid();
}

std::int64_t ownGroupId() {
    return ::getegid();
}

}  // namespace qvtp_test::backend
