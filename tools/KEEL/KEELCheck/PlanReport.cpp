#include "tools/KEEL/KEELCheck/PlanReport.h"

#include <vector>

#include "Common/Utility/HostPaths.h"
#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELCheck/CommandLine.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/collector.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace keelcheck {

std::string WorkingFolder() {
  return HostPaths().workingFolder;
}

namespace {

const char kIndent[] = "    ";

// The folder of a fileGroup or file inside the bundle, as the collector
// makes it, without making it.
std::string FolderBelow(const KEELComponent* component, const std::string& parent) {
  const KEELAttribute* name = component->FindAttribute("directoryName");
  if (name == nullptr)
    return parent;
  return parent + "/" + CStringUtils::replaceAll(name->GetValue(), "\\", "/");
}

// `path` inside the working folder, without the working folder.
std::string InBundle(const std::string& path) {
  const std::string prefix = WorkingFolder() + "/";
  return path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size()) : path;
}

uint64_t SizeOf(const std::string& path, bool& known) {
  const double size = helperUtil::fileSize(path.c_str());
  known = size >= 0.0;
  return known ? static_cast<uint64_t>(size) : 0;
}

void PlanFileCopy(KEELComponent* action, std::ostream& out, PlanTotals& totals) {
  XMLObject subtree(action);
  FileActionAttributes attributes;
  if (KEELAction::parseFileActionAttributes(subtree, attributes) != 0)
    return;
  std::string folder = helperUtil::splitBeforeLast(attributes.resolvedLoc, "/", true);
  const std::string pattern = helperUtil::splitAfterLast(attributes.resolvedLoc, "/");
  FileEntry newest;
  if (attributes.gatherNewest &&
      helperUtil::fileGetNewestMatchingFile(folder, pattern, newest) != 0) {
    out << kIndent << "nothing matches " << attributes.resolvedLoc << "\n";
    return;
  }
  std::vector<std::string> patterns{pattern};
  std::vector<FileEntry> found;
  if (helperUtil::fileFindAll(folder, patterns, false, found) != 0) {
    out << kIndent << "nothing matches " << attributes.resolvedLoc << "\n";
    return;
  }
  for (const FileEntry& entry : found) {
    if (attributes.gatherNewest && entry.name != newest.name)
      continue;
    bool known = false;
    const uint64_t size = SizeOf(folder + entry.name, known);
    out << kIndent << "file " << folder << entry.name << ": "
        << (known ? std::to_string(size) + " bytes" : std::string("size unknown")) << "\n";
    ++totals.files;
    totals.bytes += size;
  }
}

void PlanDirectoryCopy(KEELComponent* action, std::ostream& out, PlanTotals& totals) {
  XMLObject subtree(action);
  DirectoryActionAttributes attributes;
  if (KEELAction::parseDirectoryActionAttributes(subtree, attributes) != 0) {
    out << kIndent << "dropped: the tool refuses this directory_copy_action\n";
    return;
  }
  std::string folder = attributes.resolvedLoc;
  std::vector<FileEntry> found;
  if (helperUtil::fileFindAll(folder, attributes.patterns, true, found) != 0) {
    out << kIndent << "nothing matches in " << attributes.resolvedLoc << "\n";
    return;
  }
  uint64_t bytes = 0;
  for (const FileEntry& entry : found) {
    bool known = false;
    bytes += SizeOf(entry.directory + entry.name, known);
  }
  out << kIndent << "folder " << attributes.resolvedLoc << ": " << found.size() << " files, "
      << bytes << " bytes\n";
  totals.files += found.size();
  totals.bytes += bytes;
}

void PlanProgram(KEELComponent* action, const std::string& bundleFolder, std::ostream& out,
                 PlanTotals& totals) {
  XMLObject subtree(action);
  ExternalActionAttributes attributes;
  if (KEELAction::parseExternalActionAttributes(subtree, helperUtil::isUserAdmin(), attributes) !=
      0) {
    out << kIndent << "dropped: the tool refuses this use_extern_action\n";
    return;
  }
  // Where the output goes, as the collecting handler decides it.
  std::string outputFile;
  bool outputInBundle = false;
  if (!attributes.tempOut.empty()) {
    outputInBundle = attributes.tempOut.find('/') == std::string::npos;
    outputFile = outputInBundle ? bundleFolder + "/" + attributes.tempOut : attributes.tempOut;
  } else if (attributes.captureStdout) {
    outputFile = bundleFolder + "/" + attributes.shortName + "_result.txt";
    outputInBundle = true;
  }
  std::string args = attributes.args;
  if (attributes.replaceArgs) {
    args = CStringUtils::replaceAll(args, "[BUNDLE_DIR]", bundleFolder);
    if (args.find("[USER]") != std::string::npos) {
      out << kIndent << "not run: [USER] is never filled in on this system\n";
      return;
    }
  }
  const std::string path = helperUtil::translatePath(attributes.path);
  args = helperUtil::translatePath(args);
  outputFile = helperUtil::translatePath(outputFile);
  ++totals.programs;

  if (!outputFile.empty() && attributes.captureStdout) {
    const std::string command =
        !path.empty() && (args.empty() || args[0] != '/') ? path + "/" + args : args;
    out << kIndent << "program: " << command << "\n";
    out << kIndent << "  output: appended to " << InBundle(outputFile) << " in the bundle\n";
    return;
  }
  out << kIndent << "program: " << path << "/" << FirstWord(args) << "\n";
  out << kIndent << "  argument: \"" << RestAfterFirstWord(args) << "\"\n";
  if (outputFile.empty()) {
    out << kIndent << "  output: none kept\n";
  } else if (outputInBundle) {
    out << kIndent << "  output: " << InBundle(outputFile)
        << " in the bundle, if the program writes it\n";
  } else {
    out << kIndent << "  output: " << outputFile
        << ", if the program writes it; copied into the bundle as "
        << helperUtil::splitAfterLast(outputFile, "/") << ", then deleted\n";
  }
}

// The block of the instruction that the tool runs here, or null.
KEELComponent* BlockForThisSystem(KEELComponent* file) {
  KEELComponent* keel = file->FindChild("keel");
  if (keel == nullptr)
    return nullptr;
  for (const auto& child : keel->GetChildren()) {
    if (child->GetName() == "os" && child->GetAttributeValue("opsys") == "linux")
      return child.get();
  }
  return nullptr;
}

void PlanInstruction(KEELComponent* file, const std::string& bundleFolder, std::ostream& out,
                     PlanTotals& totals) {
  const KEELComponent* description = file->FindChild("description");
  out << "  " << file->GetAttributeValue("id") << ": "
      << (description != nullptr ? description->GetValue() : std::string()) << "\n";
  KEELComponent* block = BlockForThisSystem(file);
  for (const auto& group : block->GetChildren()) {
    const std::string name = group->GetName();
    for (const auto& action : group->GetChildren()) {
      if (name == "file_copy_action")
        PlanFileCopy(action.get(), out, totals);
      else if (name == "directory_copy_action")
        PlanDirectoryCopy(action.get(), out, totals);
      else if (name == "use_extern_action")
        PlanProgram(action.get(), bundleFolder, out, totals);
    }
  }
}

}  // namespace

bool WritePlan(const std::string& path, const std::string& shownPath, std::ostream& out,
               PlanTotals& totals) {
  KEELXmlLoader loader;
  XMLObjectList documents;
  if (loader.Load(path, KEELXmlLoader::kTypeFile, documents) == nullptr || documents.empty()) {
    out << shownPath << ": the tool cannot read this file; run keelcheck on it for the reason\n";
    return false;
  }
  XMLObject& document = *documents.front();
  out << shownPath << ":\n";
  // The default selection of a bundle run: default "true" and a block for
  // this system, instructions sorted by id within each group.
  for (KEELComponent* group : collector::getFileGroupComponents(document)) {
    const std::string groupFolder = FolderBelow(group, WorkingFolder());
    std::vector<KEELComponent*> files = collector::getFileGroupFileComponents(group);
    collector::sortById(files);
    for (KEELComponent* file : files) {
      if (!collector::isDefault(file) || BlockForThisSystem(file) == nullptr)
        continue;
      PlanInstruction(file, FolderBelow(file, groupFolder), out, totals);
    }
  }
  return true;
}

void WritePlanTotal(const PlanTotals& totals, std::ostream& out) {
  out << "total: " << totals.files << " files, " << totals.bytes << " bytes; " << totals.programs
      << " programs\n";
}

}  // namespace keelcheck
