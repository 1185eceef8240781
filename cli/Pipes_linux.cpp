#include "cli/Pipes.h"

#include <qvtp/platform/PipeFacts.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace qvtp::cli {

namespace {

namespace fs = std::filesystem;
/// Inodes of the sockets that listen, by path: the lines of /proc/net/unix, see proc(5) and unix(7).
std::map<std::string, std::string> listeningSockets() {
    std::map<std::string, std::string> inodes;
    std::ifstream table("/proc/net/unix");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string address, references, protocol, flags, type, state, inode, path;
        fields >> address >> references >> protocol >> flags >> type >> state >> inode >> path;
        constexpr unsigned long LISTENS = 0x10000;  // __SO_ACCEPTCON
        const bool listens = (std::strtoul(flags.c_str(), nullptr, 16) & LISTENS) != 0;
        if (!path.empty() && listens) inodes[fs::path(path).lexically_normal().string()] = inode;
    }
    return inodes;
}

std::string programOf(const std::string& pid) {
    std::error_code error;
    const fs::path executable = fs::read_symlink("/proc/" + pid + "/exe", error);
    if (!error) return executable.filename().string();
    std::string name;
    std::getline(std::ifstream("/proc/" + pid + "/comm"), name);
    return name;
}

/// Calls `action` with the number of each process and each of its sockets' inodes. Those of other users are not shown.
template <typename Action>
void forEachSocket(const Action& action) {
    std::error_code error;
    for (const auto& process : fs::directory_iterator("/proc", error)) {
        const std::string pid = process.path().filename().string();
        if (!std::all_of(pid.begin(), pid.end(), [](char c) { return c >= '0' && c <= '9'; })) continue;
        std::error_code hidden;
        for (const auto& file : fs::directory_iterator(process.path() / "fd", hidden)) {
            std::error_code gone;
            const std::string target = fs::read_symlink(file.path(), gone).string();
            const std::string prefix = "socket:[";
            if (!gone && target.rfind(prefix, 0) == 0) {
                action(pid, target.substr(prefix.size(), target.size() - prefix.size() - 1));
            }
        }
    }
}

std::string directionOf(const std::string& lockFile) {
    char direction = 0;
    std::ifstream(lockFile).get(direction);
    switch (direction) {
        case '1':
            return "to server";
        case '2':
            return "to client";
        case '3':
            return "both";
        default:
            return {};
    }
}

/// A server holds a lock on the file for as long as it lives. It is asked for, not taken.
bool isLocked(const std::string& lockFile) {
    const int file = ::open(lockFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file < 0) return false;
    struct flock query {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    const bool isKnown = ::fcntl(file, F_OFD_GETLK, &query) == 0;
    ::close(file);
    return isKnown && query.l_type != F_UNLCK;
}

/// What a file is called in terms of pipes: "%20" in it is a blank. The name of a file that was too long cannot be
/// told.
std::string nameOf(const std::string& stem) {
    if (stem.find('~') != std::string::npos) return stem;
    std::string name;
    for (std::size_t i = 0; i < stem.size(); ++i) {
        if (stem[i] == '%' && i + 2 < stem.size()) {
            name += static_cast<char>(std::stoi(stem.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            name += stem[i];
        }
    }
    return name;
}

bool isHexadecimal(const std::string& stem) {
    for (std::size_t i = stem.find('%'); i != std::string::npos; i = stem.find('%', i + 1)) {
        if (i + 2 >= stem.size()) return false;
        if (std::isxdigit(static_cast<unsigned char>(stem[i + 1])) == 0) return false;
        if (std::isxdigit(static_cast<unsigned char>(stem[i + 2])) == 0) return false;
    }
    return true;
}

}  // namespace

std::vector<PipeEntry> findPipes() {
    const fs::path directory = fs::absolute(Quovane::Io::findPipeFacts("any").path).lexically_normal().parent_path();
    std::set<std::string> stems;
    std::error_code error;
    for (const auto& file : fs::directory_iterator(directory, error)) {
        const std::string ending = file.path().extension().string();
        const std::string stem = file.path().stem().string();
        if ((ending == ".lock" || ending == ".sock") && isHexadecimal(stem)) stems.insert(stem);
    }
    const std::map<std::string, std::string> inodes = listeningSockets();
    std::vector<PipeEntry> pipes;
    std::map<std::string, std::size_t> byInode;
    for (const std::string& stem : stems) {
        PipeEntry pipe;
        pipe.name = nameOf(stem);
        pipe.path = (directory / (stem + ".sock")).string();
        const std::string lockFile = (directory / (stem + ".lock")).string();
        // The system knows a socket by the name under which it was bound, before the server renamed it. A socket
        // without a lock file is a server of another kind.
        const bool isLockHeld = isLocked(lockFile);
        const auto inode = inodes.find(isLockHeld ? (directory / (stem + ".new")).string() : pipe.path);
        pipe.isLive = isLockHeld || inode != inodes.end();
        if (isLockHeld) pipe.direction = directionOf(lockFile);
        const bool isLeftOver = pipe.isLive || fs::exists(pipe.path, error);
        if (!isLeftOver) continue;  // a lock file alone is nothing: a name that was served once
        if (pipe.isLive && inode != inodes.end()) byInode[inode->second] = pipes.size();
        pipes.push_back(pipe);
    }
    forEachSocket([&](const std::string& pid, const std::string& inode) {
        const auto found = byInode.find(inode);
        if (found == byInode.end() || pipes[found->second].pid >= 0) return;
        pipes[found->second].pid = std::atoll(pid.c_str());
        pipes[found->second].program = programOf(pid);
    });
    return pipes;
}

}  // namespace qvtp::cli
