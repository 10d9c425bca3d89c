// The checks of one loaded instruction file, by subject. Each walks the
// tool's own tree (as the tool's loader built it) and reports through the
// context; none changes the tree.
//
//  - CheckStructure: names the tool never reads where a close one exists,
//    flag and system values it does not take, instructions with no block
//    for this system or a second one, ids used twice in a group; then the
//    actions of every instruction's block for this system.
//  - CheckActions: one `os` block, through the tool's own action parsers:
//    what they refuse (errors) and what runs or copies otherwise than
//    written (warnings).
//  - CheckTexts: text that loses blanks where the reader splits it.
//
// One thread at a time.
#ifndef TOOLS_KEEL_KEELCHECK_DOCUMENTCHECKS_H_
#define TOOLS_KEEL_KEELCHECK_DOCUMENTCHECKS_H_

class KEELComponent;
class XMLObject;

namespace keelcheck {

class CheckContext;

void CheckStructure(CheckContext& context, XMLObject& document);
void CheckActions(CheckContext& context, const KEELComponent* os);
void CheckTexts(CheckContext& context, const KEELComponent* root);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_DOCUMENTCHECKS_H_
