// The summary for scripts: JSON of the schema "zelph-log summary", version 1
// (docs/zelph-log.md describes every member).
#pragma once

#include <nlohmann/json.hpp>

#include "LogSummary.h"

namespace zelph {

nlohmann::ordered_json SummaryJson(const CLogSummary& summary, const CLogInputs& inputs,
                                   const CLogNames& names);

// `value` as text; invalid UTF-8 cannot occur (every text went through
// CLogInputs::ToUtf8) but would be replaced, never thrown.
std::string DumpJson(const nlohmann::ordered_json& value, int indent);

}  // namespace zelph
