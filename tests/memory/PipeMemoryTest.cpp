#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include "support/OutOfMemory.h"
#include "support/PipeName.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <memory>

namespace qvtp_test {
namespace {

using Quovane::Io::QvPipe;
using Quovane::Io::ServerQvPipe;

class PipeWithoutMemory : public ::testing::Test {
  protected:
    const std::string name = uniquePipeName();
    ServerQvPipe server{name, true, true};
};

TEST_F(PipeWithoutMemory, LeavesItsStreamsToItsCopiesWhenItEnds) {
    auto original = std::make_unique<QvPipe>(name, true, true);
    std::istream& in = *original->getInputStream();
    std::ostream& out = *original->getOutputStream();
    const QvPipe copy(*original);
    bool failed = true;
    {
        const OutOfMemory memory;
        original.reset();
        failed = memory.hasFailed();
    }
    EXPECT_FALSE(failed);
    EXPECT_EQ(thrownBy([&] { in.get(); }), "QvPipeException: QvPipe read failed.");
    EXPECT_EQ(thrownBy([&] { out.write("x", 1); }), "QvPipeException: Pipe write failed");
}

}  // namespace
}  // namespace qvtp_test
