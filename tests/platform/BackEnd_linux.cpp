#include "platform/BackEnd.h"

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

bool keepsBytesAfterTimedOutRead() {
    return true;
}

bool freesPlaceOnAccept() {
    return true;
}

bool buffersMoreThanAPipe() {
    return true;
}

bool neverReusesHandles() {
    return true;
}

bool keepsNamesAsTheyAre() {
    return true;
}

bool alwaysReportsAborts() {
    return true;
}

int longestName() {
    return 247;
}

int emptyNameError() {
    return 123;
}

}  // namespace qvtp_test::backend
