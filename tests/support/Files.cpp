#include "support/PipeName.h"
#include "support/Process.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace qvtp_test {

std::string contentsOfFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string contents(std::istreambuf_iterator<char>(in), {});
    contents.erase(std::remove(contents.begin(), contents.end(), '\r'), contents.end());
    return contents;
}

void writeFile(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

std::string makeTestDirectory() {
    const auto path = std::filesystem::current_path() / "run" / uniquePipeName();
    std::filesystem::create_directories(path);
    return path.string();
}

}  // namespace qvtp_test
