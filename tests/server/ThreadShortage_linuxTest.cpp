#include "server/Worker.h"

#include <qvtp/io/ServerQvPipe.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <memory>
#include <vector>

namespace qvtp_test {
namespace {

/// New threads cannot be started as long as this lives: their stacks would be larger than the address space.
class NoNewThreads {
  public:
    NoNewThreads() {
        pthread_getattr_default_np(&before_);
        pthread_attr_t huge;
        pthread_getattr_default_np(&huge);
        pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
        pthread_setattr_default_np(&huge);
        pthread_attr_destroy(&huge);
    }
    ~NoNewThreads() {
        pthread_setattr_default_np(&before_);
        pthread_attr_destroy(&before_);
    }
    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;

  private:
    pthread_attr_t before_{};
};

class ThreadShortage : public Worker {
  protected:
    void occupyTheThreeThatAreThere() {
        for (int i = 1; i <= 3; ++i) {
            clients.push_back(std::make_unique<RawClient>(server.name));
            ASSERT_TRUE(eventually([&] { return server.server.totalRequestProcessors() == i; }));
        }
    }
    std::vector<std::unique_ptr<RawClient>> clients;
};

TEST_F(ThreadShortage, EndsAServerThatCannotStartItsThreadsAndGivesUpItsName) {
    LogCapture log(LogCapture::LoggingLevel::ERROR);
    {
        const NoNewThreads shortage;
        server.server.run();
    }
    EXPECT_FALSE(server.server.isRunning());
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].rfind(
                  "ERROR QvtpServer " + server.name + " cannot run: its threads could not be started. ", 0),
              0U)
        << log.messages()[0];
    const Quovane::Io::ServerQvPipe next(server.name, true, true);
    EXPECT_TRUE(next.isBound());
}

TEST_F(ThreadShortage, LetsAConnectionWaitForTheNextWorkerThatEnds) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 600000);  // a step is a minute
    server.start();
    occupyTheThreeThatAreThere();
    LogCapture log;
    const NoNewThreads shortage;
    RawClient fourth(server.name);
    ASSERT_TRUE(eventuallyLogs(log, "DEBUG Still waiting for thread to process QvPipe worker " + full(4)));
    clients[0]->close();
    EXPECT_LT(elapsed([&] { EXPECT_EQ(fourth.exchange(POST_HELLO, HELLO_BACK), HELLO_BACK); }), 20s);
}

TEST_F(ThreadShortage, IsTriedAgainAfterAStep) {
    server.server.setOption(QvtpServer::IDLE_TIMEOUT, 1000);
    server.start();
    occupyTheThreeThatAreThere();
    LogCapture log;
    std::unique_ptr<RawClient> fourth;
    {
        const NoNewThreads shortage;
        fourth = std::make_unique<RawClient>(server.name);
        ASSERT_TRUE(eventuallyLogs(log, "DEBUG Still waiting for thread to process QvPipe worker " + full(4)));
    }
    EXPECT_EQ(fourth->exchange(POST_HELLO, HELLO_BACK), HELLO_BACK);
}

}  // namespace
}  // namespace qvtp_test
