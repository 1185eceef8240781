// Any bytes as the configuration file: it is read or it is not, with a line then. What it says is applied, or the
// parser's NumberFormatException comes out.

#include <qvtp/client/QvtpClient.h>
#include <qvtp/message/QvtpMessage.h>
#include <qvtp/server/QvtpServer.h>

#include "config/ConfigurationDocument.h"

#include <xercesc/util/NumberFormatException.hpp>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

using namespace Quovane::Qvtp;
using Quovane::Internal::Qvtp::ConfigurationDocument;

constexpr int KEPT = 987654321;  // no file says that

void require(bool condition) {
    if (!condition) std::abort();
}

/// What a document refers to would be fetched, and what it defines may grow without bound: it is as trusted as the
/// program. Letters may have zeros between them.
bool refersOrDefines(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    for (const char* const word : {"SYSTEM", "PUBLIC", "ENTITY"}) {
        if (text.find(word) != text.npos) return true;
    }
    return false;
}

bool isAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

/// Whether it is in UTF-8, as far as that can be seen, and a character more stands for itself: of a sequence that the
/// end of a file cuts off the parser takes no notice, whatever is in it.
bool isPlain(const std::string& text) {
    constexpr std::size_t LONGEST_SEQUENCE = 6;
    const bool hasMark = !text.empty() && !isAscii(text[0]);
    const auto end = text.end() - static_cast<std::ptrdiff_t>(std::min(text.size(), LONGEST_SEQUENCE));
    return !hasMark && std::all_of(end, text.end(), isAscii) && text.find('\0') == text.npos &&
           text.find("encoding") == text.npos;
}

/// A file in memory.
class File {
  public:
    explicit File(const char* name) : fd_(::memfd_create(name, MFD_CLOEXEC)) {}
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }
    void set(const std::uint8_t* data, std::size_t size) const {
        require(::ftruncate(fd_, 0) == 0);
        require(::pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size));
    }
    void append(char c) const { require(::pwrite(fd_, &c, 1, static_cast<off_t>(size())) == 1); }
    std::size_t size() const { return static_cast<std::size_t>(::lseek(fd_, 0, SEEK_END)); }

  private:
    int fd_;
};

/// The options of a target that an entry was applied to, as text; or that a value was no number.
template <typename Target, typename Option>
std::string applied(const ConfigurationDocument& document, Target& target, std::initializer_list<Option> options,
                    const std::string& function, const std::string& component) {
    for (const Option option : options) target.setOption(option, KEPT);
    std::string result;
    try {
        document.apply(target, function, component);
    } catch (const xercesc::NumberFormatException&) {
        return "no number";
    }
    for (const Option option : options) result += std::to_string(target.getIntegerOption(option)) + " ";
    return result;
}

std::string appliedToBoth(const ConfigurationDocument& document, const std::string& function,
                          const std::string& component) {
    static QvtpClient client;
    static QvtpServer server("configuration-" + std::to_string(::getpid()), 1);
    return applied(document, client,
                   {QvtpClient::CONNECTION_TIMEOUT, QvtpClient::IDLE_TIMEOUT, QvtpClient::BUFFER_SIZE}, function,
                   component) +
           applied(document, server,
                   {QvtpServer::MAX_REQUEST_PROCESSORS, QvtpServer::ACCEPT_TIMEOUT, QvtpServer::IDLE_TIMEOUT,
                    QvtpServer::RECEIVE_TIMEOUT, QvtpServer::BUFFER_SIZE},
                   function, component);
}

std::string attributeOf(const ConfigurationDocument::Entry& entry, const std::string& name) {
    for (const auto& attribute : entry.attributes) {
        if (attribute.name == name) return attribute.value;
    }
    return "";
}

const std::string& unchanged() {
    static const std::string text = [] {
        std::string result;
        for (int i = 0; i < 8; ++i) result += std::to_string(KEPT) + " ";
        return result;
    }();
    return text;
}

std::string resultOf(const ConfigurationDocument& document, const ConfigurationDocument::Entry& entry) {
    return appliedToBoth(document, attributeOf(entry, "function"), attributeOf(entry, "component"));
}

/// One file in eight: a reading takes longer than all else. Always the same ones.
bool isReadAgain(const std::string& text) {
    std::uint32_t hash = 2166136261U;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    return (hash >> 16) % 8 == 0;
}

}  // namespace

/// The parser loses what it has read of an element's content model when it finds an error there. What it hands to the
/// library is owned by a class each; tests look for leaks of that.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier): the sanitizer's name
    return "leak:xercesc_*::MemoryManagerImpl::allocate\n";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const File file("configuration");
    static const File log("log");
    static std::FILE* const errors = [] {
        ::setenv("QVTP_PIPE_DIR", "/tmp/qvtp-fuzz-pipes", 0);  // scripts/fuzz has one that it removes
        ::setenv("QvtpConfigurationFile", file.path().c_str(), 1);
        std::FILE* const opened = std::fopen(log.path().c_str(), "w");
        QvtpMessage::setLoggingLevel(opened, LoggingLevel::ERROR, nullptr, CommunicationLevel::OFF);
        return opened;
    }();
    require(errors != nullptr);
    const std::string text(data, data + size);
    if (refersOrDefines(text)) return 0;
    file.set(data, size);
    std::rewind(errors);
    log.set(nullptr, 0);

    ConfigurationDocument document;
    document.load();
    require(document.isRead() || log.size() > 0);
    if (!document.isRead()) require(document.entries().empty() && appliedToBoth(document, "F", "C") == unchanged());
    std::vector<std::string> results;
    for (const auto& entry : document.entries()) results.push_back(resultOf(document, entry));
    if (!isReadAgain(text)) return 0;

    ConfigurationDocument again;
    again.load();
    require(again.isRead() == document.isRead() && again.entries().size() == document.entries().size());
    for (std::size_t i = 0; i < results.size(); ++i) {
        require(resultOf(again, document.entries()[i]) == results[i]);
    }
    // Nothing that ends like this is well-formed, unless it means another character. What was read before is not kept.
    if (isPlain(text)) {
        file.append('<');
        ConfigurationDocument cut;
        cut.load();
        require(!cut.isRead() && cut.entries().empty());
    }
    return 0;
}
