// The names of the instruction format that the tool looks up, by the place
// where it looks them up, and the search for a close name when an author
// wrote one the tool never reads ("defualt", "tmp_out").
//
// Pure functions over fixed tables; safe on any thread.
#ifndef TOOLS_KEEL_KEELCHECK_VOCABULARY_H_
#define TOOLS_KEEL_KEELCHECK_VOCABULARY_H_

#include <string>
#include <vector>

namespace keelcheck {

// Where an element stands, as far as the names below it are concerned.
enum class Place {
  kRoot,             // the document's root element
  kConfigure,        // configure
  kFileGroup,        // fileGroup
  kFile,             // file
  kKeel,             // keel
  kOs,               // os
  kGroup,            // an action group: its children are action elements of any name
  kFileCopyAction,   // an action element under file_copy_action
  kDirectoryAction,  // an action element under directory_copy_action
  kExternalAction,   // an action element under use_extern_action
  kOther,            // anywhere else
};

// Every element name the tool compares against, anywhere.
const std::vector<std::string>& KnownElementNames();
// Every attribute name the tool compares against, anywhere.
const std::vector<std::string>& KnownAttributeNames();
bool IsKnownElementName(const std::string& name);

// The element names the tool reads directly below an element of `place`;
// empty where the names are free (kGroup) or nothing is read (kOther).
const std::vector<std::string>& ChildNamesAt(Place place);
// The attribute names the tool reads on an element of that name.
const std::vector<std::string>& AttributeNamesOf(const std::string& element);

// The place of a child named `name` below an element of `parent`.
Place PlaceOfChild(Place parent, const std::string& name);

// Edit distance with adjacent transpositions (optimal string alignment).
size_t EditDistance(const std::string& a, const std::string& b);
// Whether `written` is close enough to `known` to be a slip of the pen:
// the same but for case and underscores, or within an edit distance of 1
// (names of up to four letters) or 2 (longer ones).
bool IsCloseName(const std::string& written, const std::string& known);
// The first of `candidates` closest to `written`, or empty when none is
// close. An exact match is not a slip and gives empty.
std::string ClosestName(const std::string& written, const std::vector<std::string>& candidates);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_VOCABULARY_H_
