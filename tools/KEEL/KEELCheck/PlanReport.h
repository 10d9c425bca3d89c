// keelcheck --plan: what a bundle run would gather on this host now, from
// one instruction file, as keelcli would select and read its instructions:
// each matching file with its size, each folder with its file count and
// size, each program with the command line exactly as it would run and
// where its output would go. Nothing is copied and nothing is run; the
// file searches are those of the tool.
//
// One thread at a time.
#ifndef TOOLS_KEEL_KEELCHECK_PLANREPORT_H_
#define TOOLS_KEEL_KEELCHECK_PLANREPORT_H_

#include <cstdint>
#include <ostream>
#include <string>

namespace keelcheck {

struct PlanTotals {
  uint64_t files = 0;  // matched files, those in folders included
  uint64_t bytes = 0;
  uint64_t programs = 0;
};

// The working folder that a bundle run fills, as [BUNDLE_DIR] and the
// output files of programs name it.
std::string WorkingFolder();

// Writes the plan of the file at `path`, headed by `shownPath`, and adds to
// `totals`. False when the tool's loader refuses the file (a line says so).
bool WritePlan(const std::string& path, const std::string& shownPath, std::ostream& out,
               PlanTotals& totals);
// "total: N files, B bytes; P programs".
void WritePlanTotal(const PlanTotals& totals, std::ostream& out);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_PLANREPORT_H_
