#pragma once

#include <qvtp/easy.h>

#include <nlohmann/json.hpp>

#include <string>

namespace qvtp::cli {

using Json = nlohmann::ordered_json;

/// Headers as an object; one that is there several times has an array.
Json jsonOf(const Headers& headers);
/// Puts a body where the object says whether it is text: "body", or "bodyBase64" if it is not UTF-8.
void putBody(Json& object, const std::string& body);
/// With an indent, and a line end. What is no UTF-8 is replaced.
std::string textOf(const Json& json);

}  // namespace qvtp::cli
