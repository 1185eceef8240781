#include "cli/Json.h"

#include <Poco/Base64Encoder.h>

#include <sstream>

namespace qvtp::cli {

namespace {

bool isUtf8(const std::string& text) {
    try {
        Json(text).dump();
        return true;
    } catch (const Json::type_error&) {
        return false;
    }
}

std::string base64Of(const std::string& bytes) {
    std::ostringstream out;
    Poco::Base64Encoder encoder(out, 0);
    encoder.rdbuf()->setLineLength(0);
    encoder.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    encoder.close();
    return out.str();
}

}  // namespace

Json jsonOf(const Headers& headers) {
    Json object = Json::object();
    for (const auto& [name, value] : headers) {
        Json& entry = object[name];
        if (entry.is_null()) {
            entry = value;
        } else {
            if (!entry.is_array()) entry = Json::array({entry});
            entry.push_back(value);
        }
    }
    return object;
}

void putBody(Json& object, const std::string& body) {
    if (isUtf8(body)) {
        object["body"] = body;
    } else {
        object["bodyBase64"] = base64Of(body);
    }
}

std::string textOf(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace qvtp::cli
