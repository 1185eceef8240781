#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include "platform/PipeContract.h"
#include "support/Child.h"
#include "support/Thrown.h"

#include <atomic>
#include <thread>

namespace qvtp_test {
namespace {

using Quovane::Io::QvPipe;
using Quovane::Io::ServerQvPipe;

/// What a forked child does with the pipes that it inherits.
class ForkedChild : public PipeContract {};

TEST_F(ForkedChild, TakesNoClientOfItsParent) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    ASSERT_EQ(connect(client), 0);
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    EXPECT_EQ(resultInChild([&] { return accept(server, 1000); }), AcceptResult::CONNECT_ERROR);
    EXPECT_THAT(log.messages(), ElementsAre("ERROR Connect error: 6"));
    ASSERT_EQ(accept(server), AcceptResult::CONNECTED);
    ASSERT_EQ(write(client, "to the parent"), 0);
    EXPECT_EQ(readText(server), "to the parent");
}

TEST_F(ForkedChild, CreatesNoInstanceOfItsParentsName) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    EXPECT_EQ(resultInChild([&] {
                  End next;
                  return platform::platformCreateNextInstance(server.pipe, path(), true, true, next.pipe, next.event);
              }),
              5);
    EXPECT_EQ(connect(client), 0);
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
}

TEST_F(ForkedChild, ServesANameOfItsOwn) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    EXPECT_EQ(resultInChild([&] {
                  End own, ownClient;
                  const std::string other = name + "-child";
                  if (createNamed(own, other) != 0) return 1;
                  if (connectNamed(ownClient, other, 2000) != 0) return 2;
                  return accept(own);
              }),
              0);
    EXPECT_EQ(connect(client), 0);
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
}

TEST_F(ForkedChild, LeavesAnInheritedNameToItsParentWhenItForgetsIt) {
    End server, client;
    ASSERT_EQ(create(server), 0);
    EXPECT_EQ(resultInChild([&] {
                  server.close();
                  End own;
                  return createNamed(own, name + "-child");  // looks through the names that it has inherited
              }),
              0);
    EXPECT_EQ(connect(client), 0);
    EXPECT_EQ(accept(server), AcceptResult::CONNECTED);
}

TEST_F(ForkedChild, HasAServerPipeThatDoesNoHarmToTheParents) {
    ServerQvPipe server(name, true, true);
    server.setAcceptTimeout(2000);
    QvPipe client(name, true, true);
    EXPECT_EQ(resultInChild([&] {
                  const bool isRefused = thrownBy([&] { server.accept(); }) == "QvPipeException: acceptPipe failed";
                  server.close();
                  return isRefused ? 0 : 1;
              }),
              0);
    QvPipe accepted;
    EXPECT_EQ(thrownBy([&] { server.accept(accepted); }), "nothing");
    client.writePipe("x", 0, 1);
    char byte = 0;
    EXPECT_EQ(accepted.readPipe(&byte, 0, 1, 1000), 1);
    EXPECT_EQ(thrownBy([&] { QvPipe(name, true, true); }), "nothing");
}

TEST_F(ForkedChild, ClosesWhateverOtherThreadsWereDoing) {
    End server, client;
    pair(server, client);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!done) {
                End own;
                createNamed(own, name + "-own");  // by one of them at a time
            }
        });
    }
    int hung = 0;
    for (int i = 0; i < 200 && hung == 0; ++i) {
        const int child = startChildAtOnce([&] {
            client.close();
            server.close();
            End own;
            return createNamed(own, name + "-child");
        });
        hung += resultOf(child) != 0;
    }
    done = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(hung, 0);
}

}  // namespace
}  // namespace qvtp_test
