// The checks of one instruction file: whether the tool's loader takes it,
// what the tool makes of each instruction, and the grammar of the format.
// Who may write the file is told by AccessCheck, which needs no parse.
//
// One thread at a time per call; calls share only the compiled grammar.
#ifndef TOOLS_KEEL_KEELCHECK_INSTRUCTIONFILECHECK_H_
#define TOOLS_KEEL_KEELCHECK_INSTRUCTIONFILECHECK_H_

#include <string>

#include "tools/KEEL/KEELCheck/Finding.h"

namespace keelcheck {

// Reads `path` through the tool's own loader and checks it. Findings name
// the file as `shownPath` and are ordered by place. A file the loader
// refuses gives one error and nothing else.
FindingList CheckInstructionFile(const std::string& path, const std::string& shownPath);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_INSTRUCTIONFILECHECK_H_
