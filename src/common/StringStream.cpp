#include "common/StringStream.h"

namespace Quovane::Soa::Common::Xml {

void StringStream::write(const char* data, std::size_t length) {
    contents_.append(data, length);
}

void StringStream::str(std::string& contents) const {
    contents = contents_;
}

}  // namespace Quovane::Soa::Common::Xml
