#include "common/OWriter.h"

namespace Quovane::Soa::Internal::Common {

OWriter::~OWriter() = default;

}  // namespace Quovane::Soa::Internal::Common
