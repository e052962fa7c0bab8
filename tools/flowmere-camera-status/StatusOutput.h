#pragma once

// How a status report reads: as text for a person at a terminal, or as one JSON object for
// scripts. Both carry the same facts.
//
// Any thread; each call writes only to the stream it is given.

#include <cstdio>
#include <nlohmann/json.hpp>

#include "StatusReport.h"

namespace flowmere::status {

void printReport(const StatusReport& report, std::FILE* out);

nlohmann::json reportJson(const StatusReport& report);

}  // namespace flowmere::status
