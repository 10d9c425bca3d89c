// The check of an instruction file against the RELAX NG grammar of the
// format (xml/schema/keel-instructions.rng, built into the program),
// through libxml2's own validator.
//
// The grammar is compiled once per process and then only read; each call
// validates its own tree with its own context, so calls on several
// threads at once are safe.
#ifndef TOOLS_KEEL_KEELCHECK_SCHEMACHECK_H_
#define TOOLS_KEEL_KEELCHECK_SCHEMACHECK_H_

#include <string>
#include <vector>

namespace keelcheck {

class SourceMap;

// The text of the grammar, as built in.
const std::string& InstructionSchemaText();

// Where the file leaves the grammar: the innermost elements that fail,
// each with one message of libxml2's (the most telling of those it gave).
struct SchemaFailure {
  long element = -1;  // index in the SourceMap, or -1 when unknown
  int line = 1;       // libxml2's line, for an unknown element
  std::string message;
};

// Validates the bytes the map read. `compiled` is false when the built-in
// grammar itself does not compile (a defect of the build), and then
// nothing is validated.
std::vector<SchemaFailure> ValidateAgainstSchema(const SourceMap& map, bool& compiled);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_SCHEMACHECK_H_
