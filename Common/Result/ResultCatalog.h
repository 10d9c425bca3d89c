// The result-code catalogue: one row of text per code, for the log.
//
// The table is constant data with static lifetime; nothing owns or frees it.
// It serves the whole client family, so it keeps a slot for every module
// index even where this tool never returns a code of that module.
#ifndef COMMON_RESULT_RESULTCATALOG_H_
#define COMMON_RESULT_RESULTCATALOG_H_

#include <cstdint>

#include "Common/Result/ResultCode.h"

// One module of the catalogue: its row count and its array of row strings.
// A row string is "NAME" or "NAME:text".
struct ResultCodeModule {
  uint32_t count;
  const char* const* rows;
};

// Number of modules in the catalogue, retired slots included.
constexpr uint32_t kResultCodeModuleCount = 265;

// The module table, kResultCodeModuleCount rows in module order.
extern const ResultCodeModule g_resultCodeModules[kResultCodeModuleCount];

// Looks up the catalogue text of `code` in `table` (of `moduleCount` rows).
// Never fails: answers the row, the module's last row for an unknown row, or
// "unknown" when the code is not a catalogue code or no table is installed.
const char* DescribeResultCode(ResultCode code, uint32_t moduleCount,
                               const ResultCodeModule* table);

#endif  // COMMON_RESULT_RESULTCATALOG_H_
