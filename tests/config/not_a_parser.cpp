// A library that lies where the parser module should, and is none.

#include <qvtp/Export.h>

extern "C" QVTP_API int qvtpSomethingElse() {
    return 1;
}
