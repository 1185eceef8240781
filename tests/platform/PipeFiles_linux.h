#pragma once

#include "common/System.h"
#include "platform/PipeContract.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace qvtp_test {

/// Tests that look at the files of the names, in a directory of their own.
class PipeFiles : public PipeContract {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qvtp-test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root = pattern;
        use(root + "/pipes");
    }
    void TearDown() override {
        const std::string command = "rm -rf " + root;
        ASSERT_EQ(std::system(command.c_str()), 0);
        before ? ::setenv("QVTP_PIPE_DIR", before->c_str(), 1) : ::unsetenv("QVTP_PIPE_DIR");
    }

    void use(const std::string& path) {
        directory = path;
        ::setenv("QVTP_PIPE_DIR", directory.c_str(), 1);
    }
    bool exists(const std::string& file) const { return ::access((directory + "/" + file).c_str(), F_OK) == 0; }
    mode_t modeOf(const std::string& path) const {
        struct stat status {};
        return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
    std::string lockByte(const std::string& file) const {
        std::ifstream in(directory + "/" + file);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::vector<std::string> files() const {
        std::vector<std::string> found;
        DIR* dir = ::opendir(directory.c_str());
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] != '.') found.push_back(entry->d_name);
        }
        ::closedir(dir);
        return found;
    }
    /// A socket of somebody else's, listening under this file name.
    int listenAs(const std::string& file) const {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (directory + "/" + file).copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(fd, 5), 0);
        return fd;
    }

    const std::optional<std::string> before = platform::System::environmentVariable("QVTP_PIPE_DIR");
    std::string root;
    std::string directory;
};

}  // namespace qvtp_test
