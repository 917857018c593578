// The JSON that settings, results and control requests are made of: fields keep their order.
//
// Thread safety: plain values.
#pragma once

#include <nlohmann/json_fwd.hpp>

using JsonValue = nlohmann::ordered_json;
