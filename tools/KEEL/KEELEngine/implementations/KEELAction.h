// Actions: the unit of work on one instruction of a config.
//
// An action reads the `os` component of one instruction: its children are
// group elements (file_copy_action, directory_copy_action, use_extern_action)
// whose children are action elements. Perform walks them and calls the
// handler of each group. KEELCollectLogsAction fills the bundle's working
// folder; KEELClearLogsAction removes what instructions mark as clearable.
//
// An action is built on the stack of one collector job, lives through one
// Perform and never moves between threads. It does not own the config node,
// the summary document or the Env through which it starts programs.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELACTION_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELACTION_H_

#include <iosfwd>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"
#include "tools/KEEL/KEELEngine/implementations/KEELTypes.h"

class CProcessApi;
class Env;
class KEELComponent;
class XMLObject;

// What a file_copy_action's action element asks for.
struct FileActionAttributes {
  std::string loc;           // as written
  std::string resolvedLoc;   // loc with its variables expanded
  std::string truncateType;  // text of truncate_type; kept, read by nothing
  bool gatherNewest = false;
  bool clearLog = false;
};

// What a directory_copy_action's action element asks for.
struct DirectoryActionAttributes {
  std::string loc;  // always ends in "/"
  std::string resolvedLoc;
  std::vector<std::string> patterns;
};

// What a use_extern_action's action element asks for.
struct ExternalActionAttributes {
  std::string program;  // last component of the command's first word
  std::string path;     // folder of the program
  std::string args;     // the whole command line
  std::string tempOut;
  std::string spare;    // set by nothing
  std::string tagName;  // the element being read
  std::string clearCommand;
  std::string shortName;  // program without its last extension
  bool clear = false;
  bool captureStdout = false;
  bool replaceArgs = false;
};

class KEELAction {
 public:
  KEELAction(const ActionSettings& settings, KEELComponent* configNode, bool isAdmin);
  // Stops a program this action launched before releasing the launcher.
  virtual ~KEELAction();

  KEELAction(const KEELAction&) = delete;
  KEELAction& operator=(const KEELAction&) = delete;

  // Walks the group elements below the config node and runs every action
  // element; what succeeds is appended to `records`. Never fails.
  virtual void Perform(TruncAttrsList& records);

  virtual ResultCode performFileAction(XMLObject& subtree, TruncAttrsList& records) = 0;
  virtual ResultCode performDirectoryAction(XMLObject& subtree, TruncAttrsList& records) = 0;
  virtual ResultCode performExternalAction(XMLObject& subtree, TruncAttrsList& records,
                                           std::list<std::string>& deleteList) = 0;

  // The folder that a path/plugin/regis element names.
  static std::string getPath(KEELComponent* node);

  static ResultCode parseFileActionAttributes(XMLObject& subtree, FileActionAttributes& out);
  static ResultCode parseDirectoryActionAttributes(XMLObject& subtree,
                                                   DirectoryActionAttributes& out);
  static ResultCode parseExternalActionAttributes(XMLObject& subtree, bool isAdmin,
                                                  ExternalActionAttributes& out);

 protected:
  // Runs one command line, in the shell form (output appended to
  // `outputFile` under a banner) or the launch form, and watches it.
  ResultCode callExtern(const std::string& path, const std::string& commandLine, bool captureStdout,
                        const std::string& outputFile);

  // The record of one file that reached the working folder: this action's
  // ID, description and truncation, and the file's size as it is now.
  TruncAttrs collectedRecord(const std::string& path) const;

  std::unique_ptr<CProcessApi> m_pProcessApi;
  int32_t m_pid = 0;
  KEELComponent* m_pConfigNode;
  std::string m_fileId;
  std::string m_bundleName;
  std::string m_bundleFolder;
  std::string m_description;
  TruncateType m_truncateType;
  double m_truncateLimit;
  uint32_t m_auxValue;
  XMLObject* m_pXMLSummary;
  bool m_isAdmin;
  // Starts the programs and keeps the processor-time clock; not owned.
  Env* m_pEnv;
  // Why the output of the last shell-form command did not reach its file
  // whole, as the summary says it: the file's path and the reason. Empty
  // when it did, and after a command of the launch form.
  std::string m_outputFailure;

 private:
  // The parts of callExtern: the shell form, which appends to
  // `outputFile` and sets m_outputFailure; the launch form, which sets
  // m_pid; and the watch loop.
  ResultCode runInShell(const std::string& path, const std::string& commandLine,
                        const std::string& outputFile);
  ResultCode launch(const std::string& path, const std::string& commandLine);
  ResultCode watch(const std::string& commandLine);
};

// Copies files and folders and runs programs into the bundle's working folder.
class KEELCollectLogsAction : public KEELAction {
 public:
  KEELCollectLogsAction(const ActionSettings& settings, KEELComponent* configNode, bool isAdmin)
      : KEELAction(settings, configNode, isAdmin) {}
  ResultCode performFileAction(XMLObject& subtree, TruncAttrsList& records) override;
  ResultCode performDirectoryAction(XMLObject& subtree, TruncAttrsList& records) override;
  ResultCode performExternalAction(XMLObject& subtree, TruncAttrsList& records,
                                   std::list<std::string>& deleteList) override;
};

// Deletes the files and runs the clearing commands that instructions mark
// with clear_log apply="true". Never runs admin_args.
class KEELClearLogsAction : public KEELAction {
 public:
  KEELClearLogsAction(const ActionSettings& settings, KEELComponent* configNode)
      : KEELAction(settings, configNode, false) {}
  ResultCode performFileAction(XMLObject& subtree, TruncAttrsList& records) override;
  ResultCode performDirectoryAction(XMLObject& subtree, TruncAttrsList& records) override;
  ResultCode performExternalAction(XMLObject& subtree, TruncAttrsList& records,
                                   std::list<std::string>& deleteList) override;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELACTION_H_
