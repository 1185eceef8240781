// What has to cross the border of the shared library: this program links it as applications do, unlike the other tests,
// which are linked with its parts.

#include <qvtp/qvtp.h>

#include "examples/BodyOf.h"
#include "support/PipeName.h"
#include "support/TemporaryFile.h"
#include "support/Thrown.h"
#include "support/Watchdog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <exception>
#include <future>
#include <ios>
#include <memory>
#include <string>
#include <thread>
#include <typeinfo>

namespace {

using namespace Quovane::Qvtp;
using namespace Quovane::Io;
using namespace qvtp_test;

// ---- Constants ----

// Built while the program starts, when the library's own constants have to be there already.
const std::string METHODS_AT_START = QvtpMessage::METHOD_POST + QvtpMessage::METHOD_NOTIFY + QvtpMessage::METHOD_NONE;
const std::string VERSION_AT_START = Version::CURRENT_VERSION.toString();

TEST(SharedConstants, ExistBeforeTheProgramsOwn) {
    EXPECT_EQ(METHODS_AT_START, "POSTNOTIFYNONE");
    EXPECT_EQ(VERSION_AT_START, "QVTP/1.0");
}

TEST(SharedConstants, HaveTheValuesOfTheLibrary) {
    EXPECT_EQ(QvtpMessage::HEADER_CONTENT_LENGTH, "Content-Length");
    EXPECT_EQ(QvtpMessage::HEADER_TRANSFER_ENCODING, "Transfer-Encoding");
    EXPECT_EQ(QvtpMessage::HEADER_CHUNKED_ENCODING, "chunked");
    EXPECT_EQ(QvtpMessage::HEADER_IDENTITY_ENCODING, "identity");
    EXPECT_EQ(QvtpMessage::HEADER_USER_AGENT, "User-Agent");
    EXPECT_EQ(QvtpMessage::HEADER_SERVER, "Server");
    EXPECT_EQ(QvPipe::PIPE_NAME_PREFIX, "\\\\.\\pipe\\");
}

TEST(SharedConstants, CanBeReferredToAsObjects) {
    // A reference needs the object, not only its value.
    const std::int32_t* const codes[] = {&QvtpMessage::STATUS_OK, &QvtpMessage::STATUS_NOT_FOUND,
                                         &QvtpMessage::STATUS_VERSION_NOT_SUPPORTED};
    EXPECT_EQ(*codes[0], 200);
    EXPECT_EQ(*codes[1], 404);
    EXPECT_EQ(*codes[2], 505);
}

TEST(SharedConstants, IncludeTheMapOfReasons) {
    EXPECT_EQ(QvtpMessage::STATUS_REASONS.size(), 10U);
    EXPECT_EQ(QvtpMessage::STATUS_REASONS.at(QvtpMessage::STATUS_NOT_FOUND), "Not Found");
}

// ---- Exceptions of the library in the program ----

TEST(SharedExceptions, OfAMissingServerArriveAsTheirClass) {
    EXPECT_EQ(thrownBy([] { QvPipe(uniquePipeName(), true, true); }), "ConnectException: Could not connect to pipe.");
}

TEST(SharedExceptions, OfAnImpossibleNameArriveAsTheirClass) {
    const std::string tooLong(300, 'n');
    EXPECT_EQ(thrownBy([&] { ServerQvPipe(tooLong, true, true); }), "BindException: CreateNamedPipe failed");
}

TEST(SharedExceptions, OfWrongCallsArriveAsTheirClass) {
    QvPipe pipe;
    EXPECT_EQ(thrownBy([&] { pipe.bind("x", false, false); }), "IllegalArgumentException");
    EXPECT_EQ(thrownBy([&] { pipe.connect(); }), "IllegalStateException: Pipe not yet bound");
}

/// Both ends of a connection.
class SharedPipe : public ::testing::Test {
  protected:
    const std::string name = uniquePipeName();
    ServerQvPipe listener{name, true, true};
    QvPipe client{name, true, true};
    QvPipe server = listener.accept();
    char data[10] = {};
};

TEST_F(SharedPipe, ReportsATimeoutAsItsClass) {
    EXPECT_EQ(thrownBy([&] { client.readPipe(data, 0, 10, 30); }), "TimeoutException: QvPipe read timeout.");
}

TEST_F(SharedPipe, ReportsABrokenPipeAsItsClass) {
    server.close();
    EXPECT_EQ(thrownBy([&] { client.writePipe("x", 0, 1); }), "BrokenPipeException: Pipe was closed at other end.");
}

TEST_F(SharedPipe, ReportsAnInterruptionAsItsClass) {
    auto reading = std::async(std::launch::async, [&] { return thrownBy([&] { client.readPipe(data, 0, 10, 0); }); });
    EXPECT_EQ(reading.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    client.close();
    EXPECT_EQ(reading.get(), "InterruptedException: QvPipe read aborted.");
}

template <typename Class>
bool catchesConnectFailure() {
    try {
        QvPipe(uniquePipeName(), true, true);
    } catch (const Class&) {
        return true;
    } catch (...) {
        return false;
    }
    return false;
}

TEST(SharedExceptions, AreCaughtByEachOfTheirBases) {
    EXPECT_TRUE(catchesConnectFailure<ConnectException>());
    EXPECT_TRUE(catchesConnectFailure<QvPipeException>());
    EXPECT_TRUE(catchesConnectFailure<std::ios_base::failure>());
    EXPECT_TRUE(catchesConnectFailure<std::exception>());
    EXPECT_FALSE(catchesConnectFailure<BindException>());
}

TEST(SharedExceptions, ComeThroughTheTemplateOfTheStreamBuffer) {
    EXPECT_EQ(thrownBy([] { PipeBufferBase<char>(nullptr, 7); }),
              "QvPipeException: Mode must be either ios_base::in or ios_base::out");
}

TEST_F(SharedPipe, CarriesBytesThroughAStreamBufferOfTheProgram) {
    PipeBufferBase<char> buffer(&client, PipeBufferBase<char>::OUTPUT_MODE);
    std::ostream stream(&buffer);
    stream << "across";
    ASSERT_EQ(server.readPipe(data, 0, 10, 2000), 6);
    EXPECT_EQ(std::string(data, 6), "across");
}

// ---- Classes of the program in the library ----

class OwnException : public ConnectException {
  public:
    OwnException() : ConnectException("own", 77) {}
};

/// Breaks at the first request for a pipe, and has none at the second.
class FailingManager : public QvtpConnectionManager {
  public:
    QvPipe* getPipe(const std::string&, const std::string&) override {
        if (++calls == 1) throw BrokenPipeException("broken by the program");
        throw OwnException();
    }
    void returnPipe(QvPipe*) override {}
    void removePipe(QvPipe*) override {}

    int calls = 0;
};

TEST(SharedExceptions, OfTheProgramAreCaughtByTheLibraryOrPassThroughIt) {
    FailingManager manager;
    QvtpClient client(&manager);
    PostRequest request(&client, "name", "/");
    request.setBody("x", 1);
    EXPECT_THROW(request.execute(), OwnException);
    EXPECT_EQ(manager.calls, 2);  // the library takes a broken pipe as a reason to try again
}

class UpperCaseHandler : public QvtpHandler {
  public:
    void handleNotify(QvtpServerRequest*) override {}
    void handlePost(QvtpServerRequest* request, QvtpServerResponse* response) override {
        // The library hands out its classes; the program asks for their type.
        isRequest = dynamic_cast<QvtpMessageIn*>(request) != nullptr && typeid(*request) == typeid(QvtpServerRequest);
        std::string text = example::bodyOf(*request);
        for (char& c : text) c = static_cast<char>(c - 'a' + 'A');
        response->setStatusCode(QvtpMessage::STATUS_OK);
        response->setBody(text.data(), text.size());
        response->send();
    }

    bool isRequest = false;
};

std::string post(const std::string& name, const std::string& text) {
    QvtpClient client;
    PostRequest request(&client, name, "/");
    request.setBody(text.data(), text.size());
    const std::unique_ptr<QvtpResponse> response(request.execute());
    return example::bodyOf(*response);  // allocated there, freed here
}

TEST(SharedLibrary, CallsAHandlerOfTheProgram) {
    const std::string name = uniquePipeName();
    UpperCaseHandler handler;
    QvtpServer server(name, 1);
    server.setHandler(&handler);
    std::thread thread([&] { server.run(); });
    EXPECT_TRUE(eventually([&] { return server.isRunning(); }));
    EXPECT_EQ(post(name, "across"), "ACROSS");
    server.shutdown();
    thread.join();
    EXPECT_TRUE(handler.isRequest);
}

TEST(SharedLibrary, WritesToALogFileThatTheProgramOpened) {
    std::FILE* const file = temporaryFile();
    ASSERT_NE(file, nullptr);
    QvtpMessage::setLoggingLevel(file, LoggingLevel::ERROR, nullptr, CommunicationLevel::OFF);
    EXPECT_EQ(thrownBy([] { QvPipe(uniquePipeName(), true, true); }), "ConnectException: Could not connect to pipe.");
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    EXPECT_GT(std::ftell(file), 0);
    std::fclose(file);
}

}  // namespace
