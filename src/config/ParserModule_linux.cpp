#include "config/ParserModule.h"

#include <dlfcn.h>

namespace Quovane::Internal::Qvtp {

namespace {

/// The reason of the last failure. It mostly begins with the path, which the caller knows.
std::string lastFailure(const std::string& path) {
    const char* const message = ::dlerror();
    const std::string failure = message != nullptr ? message : "";
    const std::string prefix = path + ": ";
    return failure.compare(0, prefix.size(), prefix) == 0 ? failure.substr(prefix.size()) : failure;
}

}  // namespace

ParserModule loadParser(const std::filesystem::path& path) {
    if (!path.is_absolute())
        return {nullptr, "the library's own path is not known"};  // a mere name would be searched for
    void* const module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) return {nullptr, lastFailure(path)};
    const auto entry = reinterpret_cast<ParserEntry>(::dlsym(module, PARSER_ENTRY));
    if (entry == nullptr) return {nullptr, lastFailure(path)};
    return {entry(), ""};
}

}  // namespace Quovane::Internal::Qvtp
