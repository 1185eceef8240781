#include "config/ConfigurationFile.h"

#include "config/XmlText.h"

#include <xercesc/util/BinInputStream.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <cstdio>
#include <memory>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

class FileStream : public xercesc::BinInputStream {
  public:
    explicit FileStream(File file) : file_(std::move(file)) {}

    XMLFilePos curPos() const override { return position_; }

    XMLSize_t readBytes(XMLByte* const buffer, const XMLSize_t size) override {
        const std::size_t count = std::fread(buffer, 1, size, file_.get());
        if (count == 0 && std::ferror(file_.get()) != 0) {
            ThrowXMLwithMemMgr(xercesc::XMLPlatformUtilsException, xercesc::XMLExcepts::File_CouldNotReadFromFile,
                               xercesc::XMLPlatformUtils::fgMemoryManager);
        }
        position_ += count;
        return count;
    }

    const XMLCh* getContentType() const override { return nullptr; }

  private:
    File file_;
    XMLFilePos position_ = 0;
};

}  // namespace

ConfigurationFile::ConfigurationFile(const std::string& path, const ParserCalls& calls)
    : LocalFileInputSource(XmlText::fromUtf8(path).c_str()), calls_(calls) {}

ConfigurationFile::~ConfigurationFile() = default;

xercesc::BinInputStream* ConfigurationFile::makeStream() const {
    File file(calls_.open(calls_.context));
    return file != nullptr ? new FileStream(std::move(file)) : nullptr;
}

}  // namespace Quovane::Internal::Qvtp
