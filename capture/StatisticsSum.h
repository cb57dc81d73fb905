// The statistics of several runs as one: statistics.json texts added up.
#pragma once

#include <string>
#include <vector>

namespace pelka {

// Adds up statistics.json texts: numbers at the same place are summed, objects
// are merged key by key (keys in the order they first appear), and any other
// value keeps the first one seen. The result is written the way the program
// writes statistics.json (one line, ", " and ": " between items). Texts that
// are not a JSON object are skipped; `skipped` (if given) counts them.
std::string SumStatistics(const std::vector<std::string>& texts, size_t* skipped = nullptr);

}  // namespace pelka
