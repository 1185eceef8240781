#include <qvtp/platform/PipeFacts.h>

#include "common/System.h"
#include "platform/PipeContract.h"
#include "support/PipeName.h"
#include "support/RawServer.h"

#include <gtest/gtest.h>

namespace qvtp_test {
namespace {

using Quovane::Io::findPipeFacts;
using State = Quovane::Io::PipeFacts::State;

TEST(PipeFacts, ShowWhetherANameIsServed) {
    const std::string name = uniquePipeName();
    EXPECT_EQ(findPipeFacts(name).state, State::FREE);
    {
        RawServer server(name);
        EXPECT_EQ(findPipeFacts(name).state, State::SERVED);
        EXPECT_EQ(findPipeFacts(name).reason, "");
    }
    EXPECT_EQ(findPipeFacts(name).state, State::FREE);
}

TEST(PipeFacts, DisturbNobody) {
    const std::string name = uniquePipeName();
    RawServer server(name);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(findPipeFacts(name).state, State::SERVED);
    Quovane::Io::QvPipe client(name, true, true);  // the one place is still free
    for (int i = 0; i < 10; ++i) EXPECT_EQ(findPipeFacts(name).state, State::SERVED);
    const auto accepted = server.accept();
    RawServer::write(client, "x");
    EXPECT_EQ(RawServer::read(*accepted, 1), "x");
}

TEST(PipeFacts, NameThePathAsTheSystemHasIt) {
    const std::string path = findPipeFacts("Some.Name").path;
    EXPECT_TRUE(path.find("ome.") != std::string::npos) << path;
    EXPECT_TRUE(path == R"(\\.\pipe\Some.Name)" || path.rfind("/some.name.sock") == path.size() - 15) << path;
}

TEST(PipeFacts, ReportNamesThatNoPipeCanHave) {
    EXPECT_EQ(findPipeFacts("").state, State::BAD_NAME);
    EXPECT_EQ(findPipeFacts("").reason, "A name is not empty.");
    EXPECT_EQ(findPipeFacts(std::string(248, 'n')).state, State::BAD_NAME);
    EXPECT_EQ(findPipeFacts(std::string(248, 'n')).reason, "A name has at most 247 bytes.");
    EXPECT_NE(findPipeFacts(std::string(247, 'n')).state, State::BAD_NAME);
}

TEST(CurrentProcess, IsTheOneThatTheLibraryKnows) {
    EXPECT_EQ(Quovane::Io::currentProcessId(), Quovane::Internal::Qvtp::System::currentProcessId());
}

}  // namespace
}  // namespace qvtp_test
