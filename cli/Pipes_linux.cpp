#include "cli/Pipes.h"

#include <qvtp/platform/PipeFacts.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace qvtp::cli {

namespace {

namespace fs = std::filesystem;
using Quovane::Io::findPipeFacts;
using Quovane::Io::PipeFacts;

/// Inodes of the sockets that listen, by path: the lines of /proc/net/unix, see proc(5) and unix(7).
std::map<std::string, std::string> listeningSockets() {
    std::map<std::string, std::string> inodes;
    std::ifstream table("/proc/net/unix");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string address, references, protocol, flags, type, state, inode, path;
        fields >> address >> references >> protocol >> flags >> type >> state >> inode >> path;
        constexpr unsigned long LISTENS = 0x10000;  // __SO_ACCEPTCON
        if (!path.empty() && (std::strtoul(flags.c_str(), nullptr, 16) & LISTENS) != 0) inodes[path] = inode;
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

}  // namespace

std::vector<PipeEntry> findPipes() {
    const fs::path directory = fs::path(findPipeFacts("any").path).parent_path();
    std::set<std::string> stems;
    std::error_code error;
    for (const auto& file : fs::directory_iterator(directory, error)) {
        const std::string ending = file.path().extension().string();
        if (ending == ".lock" || ending == ".sock") stems.insert(file.path().stem().string());
    }
    const std::map<std::string, std::string> inodes = listeningSockets();
    std::vector<PipeEntry> pipes;
    std::map<std::string, std::size_t> byInode;
    for (const std::string& stem : stems) {
        PipeEntry pipe;
        pipe.name = stem;
        pipe.path = (directory / (stem + ".sock")).string();
        pipe.isLive = findPipeFacts(stem).state == PipeFacts::State::SERVED;
        if (pipe.isLive) pipe.direction = directionOf((directory / (stem + ".lock")).string());
        const bool isLeftOver = pipe.isLive || fs::exists(pipe.path, error);
        if (!isLeftOver) continue;  // a lock file alone is nothing: a name that was served once
        // The system knows a socket by the name under which it was bound, before the server renamed it.
        const auto inode = inodes.find((directory / (stem + ".new")).string());
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
