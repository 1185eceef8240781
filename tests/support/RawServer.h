#pragma once

#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>

#include <memory>
#include <string>

namespace qvtp_test {

/// A server without the protocol: what a test reads and writes are the bytes on the pipe.
class RawServer {
  public:
    using QvPipe = Quovane::Io::QvPipe;

    explicit RawServer(const std::string& name, bool writable = true) : server_(name, true, writable) {
        server_.setAcceptTimeout(20000);
    }

    /// The next connection.
    std::unique_ptr<QvPipe> accept() {
        auto pipe = std::make_unique<QvPipe>();
        server_.accept(*pipe);
        pipe->setReadTimeout(20000);
        return pipe;
    }

    void close() { server_.close(); }

    /// Exactly this many bytes; fewer if the client closes.
    static std::string read(QvPipe& pipe, std::size_t size) {
        std::string data(size, '\0');
        std::size_t filled = 0;
        while (filled < size) {
            const int count = pipe.readPipe(&data[0], static_cast<int>(filled), static_cast<int>(size - filled), 20000);
            if (count < 0) break;
            filled += static_cast<std::size_t>(count);
        }
        data.resize(filled);
        return data;
    }

    /// Everything up to and including an ending.
    static std::string readUntil(QvPipe& pipe, const std::string& ending) {
        std::string data;
        while (data.size() < ending.size() || data.compare(data.size() - ending.size(), ending.size(), ending) != 0) {
            data += read(pipe, 1);
        }
        return data;
    }

    static void write(QvPipe& pipe, const std::string& data) {
        pipe.writePipe(data.data(), 0, static_cast<int>(data.size()));
    }

  private:
    Quovane::Io::ServerQvPipe server_;
};

}  // namespace qvtp_test
