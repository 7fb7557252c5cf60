// The JSON object model used for requests and replies.
#pragma once

#include <nlohmann/json.hpp>

namespace tervain {
using Json = nlohmann::json;
}
