#include "message/OutgoingMessage.h"
#include "support/OutOfMemory.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace qvtp_test {
namespace {

/// The message as it would go out.
std::string wire(OutgoingMessage& message) {
    std::ostringstream out;
    message->writeHeaders(&out);
    message->writeBody(&out);
    return out.str();
}

/// Prepares a message, lets each allocation of a setBody() fail in turn, and compares what would be sent then.
template <typename Prepare>
void expectUnchangedByAFailedBody(const Prepare& prepare) {
    const std::string body(1000, 'b');
    long n = 0;
    bool failed = true;
    while (failed) {
        ++n;
        OutgoingMessage expected, message;
        prepare(expected);
        prepare(message);
        const std::string thrown = thrownBy([&] {
            const OutOfMemory memory(n, OutOfMemory::ONCE);
            failed = true;
            message.setBody(body);
            failed = memory.hasFailed();
        });
        EXPECT_EQ(thrown, failed ? "std::exception: std::bad_alloc" : "nothing") << n;
        EXPECT_EQ(message->hasBody(), !failed || expected->hasBody()) << n;
        if (failed) {
            EXPECT_EQ(wire(message), wire(expected)) << n;
        }
    }
    EXPECT_GT(n, 1);  // the block at least
}

TEST(SetBodyWithoutMemory, LeavesTheMessageAsItWas) {
    expectUnchangedByAFailedBody([](OutgoingMessage&) {});
    expectUnchangedByAFailedBody([](OutgoingMessage& message) { message.addHeader("X-Other", "value"); });
    expectUnchangedByAFailedBody([](OutgoingMessage& message) { message.setBody("before"); });
    expectUnchangedByAFailedBody([](OutgoingMessage& message) {
        for (const char* name : {"A", "B", "D", "E"}) message.addHeader(name, "value");  // no place for another
    });
}

}  // namespace
}  // namespace qvtp_test
