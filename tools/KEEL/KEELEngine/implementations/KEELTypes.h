// Value types that the collector, the actions and the truncator hand to each
// other. Plain records; copied freely.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELTYPES_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELTYPES_H_

#include <cstdint>
#include <list>
#include <string>

class Env;
class XMLObject;

// How the files of one file ID may be cut to fit its allowance.
enum TruncateType : int32_t {
  TRUNC_WHOLE = 0,  // keep or drop whole files
  TRUNC_DATA = 1,   // shrink all files in proportion
  TRUNC_END = 2,    // direction: cut the end
  TRUNC_FRONT = 3,  // direction: cut the front
  TRUNC_NONE = 4,   // no truncation
};

// One collected file on its way to the summary.
struct TruncAttrs {
  std::string id;           // the file ID of the instruction
  std::string path;         // the file's path in the working folder
  std::string description;  // shown in the summary
  double size = 0.0;        // bytes when recorded; -1.0 if unreadable
  TruncateType truncateType = TRUNC_NONE;
  double limit = 0.0;  // total bytes allowed for the ID
  TruncateType defaultType = TRUNC_NONE;
};

typedef std::list<TruncAttrs> TruncAttrsList;

// What the collector hands to an action's constructor for one instruction.
struct ActionSettings {
  std::string m_fileId;
  std::string m_bundleName;    // wanted name in the bundle; may be empty
  std::string m_bundleFolder;  // target folder, without a trailing "/"
  std::string m_description;
  TruncateType m_truncateType = TRUNC_NONE;
  double m_truncateLimit = 0.0;
  uint32_t m_auxValue = 0;             // kept for documents; read by nothing
  XMLObject* m_pXMLSummary = nullptr;  // the collector's summary; not owned
  Env* m_pEnv = nullptr;               // the host; not owned; null for Env::Default()
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELTYPES_H_
