// The text of instruction files as the end-to-end tests write them, and the
// few words they compare the tool's output with.
//
// Every test builds its instruction files from these pieces, so that a
// change of the instruction format is made here once.
#ifndef TESTS_E2E_E2EINSTRUCTIONS_H_
#define TESTS_E2E_E2EINSTRUCTIONS_H_

#include <cctype>
#include <string>

namespace keeltest {

// The console's last progress line of a run that made its bundle.
constexpr char kFinished[] = "KEEL has finished... ";
// Shell text in front of a command that runs it as uid and gid 65534,
// without root's supplementary groups.
constexpr char kAsNobody[] = "setpriv --reuid 65534 --regid 65534 --clear-groups ";

// One file ID, selected by default, with `actions` for Linux.
inline std::string FileInstruction(const std::string& id, const std::string& actions) {
  return "<file id=\"" + id + "\"><description>" + id +
         " files</description><default>true</default><keel><os opsys=\"linux\">" + actions +
         "</os></keel></file>\n";
}

inline std::string CopyFile(const std::string& path) {
  return "<file_copy_action><action><loc>" + path + "</loc></action></file_copy_action>";
}

inline std::string CopyFolder(const std::string& path, const std::string& pattern = "*") {
  return "<directory_copy_action><action><loc>" + path + "</loc><pattern>" + pattern +
         "</pattern></action></directory_copy_action>";
}

// A program started directly: `name` in `folder`, no output file.
inline std::string Launch(const std::string& folder, const std::string& name) {
  return "<use_extern_action><action><path>" + folder + "</path><args>" + name +
         "</args></action></use_extern_action>";
}

// A program in `folder` with the output file `output`: with `captured` the
// shell form (its standard output appended there), otherwise the launch
// form (the program writes the file, and the tool copies it).
inline std::string ProgramWithOutput(const std::string& folder, const std::string& command,
                                     const std::string& output, bool captured) {
  return "<use_extern_action><action><path>" + folder + "</path><args>" + command +
         "</args><temp_out>" + output + "</temp_out>" + (captured ? "<stdout/>" : "") +
         "</action></use_extern_action>";
}

// An instruction file of one group titled `title` holding `instructions`;
// `groupAttributes` go into the group's start tag (with their leading blank).
inline std::string InstructionFile(const std::string& title, const std::string& instructions,
                                   const std::string& groupAttributes = "") {
  return "<?xml version=\"1.0\"?>\n<config><configure><title>" + title +
         "</title></configure><fileGroup treeRootName=\"" + title + "\"" + groupAttributes +
         "><title>" + title + "</title>\n" + instructions + "</fileGroup></config>\n";
}

// The summary's columns wrap long texts over several rows; without white
// space a reason reads as one.
inline std::string Squeezed(const std::string& text) {
  std::string squeezed;
  for (char c : text) {
    if (!isspace(static_cast<unsigned char>(c)))
      squeezed += c;
  }
  return squeezed;
}

}  // namespace keeltest

#endif  // TESTS_E2E_E2EINSTRUCTIONS_H_
