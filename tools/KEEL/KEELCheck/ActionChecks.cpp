// The actions of one `os` block, read by the tool's own parsers.
//
// A parser stops at the first child it refuses and the tool then drops the
// whole action. To report every refused child, the action is parsed again
// on a fresh copy without the children already reported, until the parser
// takes it; the warnings then speak about what the parser made of that.
#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"
#include "tools/KEEL/KEELCheck/CheckContext.h"
#include "tools/KEEL/KEELCheck/CommandLine.h"
#include "tools/KEEL/KEELCheck/DocumentChecks.h"
#include "tools/KEEL/KEELCheck/Vocabulary.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace keelcheck {

namespace {

// Each refused child costs a parse of a fresh copy of the action; past this
// many, the action is reported as refused and left there.
constexpr size_t kMaxRefusedChildren = 32;

// Elements of use_extern_action that must hold text only.
const std::set<std::string>& LeafOnlyNames() {
  static const std::set<std::string> names = {"path", "plugin",     "regis",   "regis64",
                                              "args", "admin_args", "temp_out"};
  return names;
}

bool IsExternalName(const std::string& name) {
  const std::vector<std::string>& names = ChildNamesAt(Place::kExternalAction);
  return std::find(names.begin(), names.end(), name) != names.end();
}

// An action element to hand to a parser: a fresh copy of it without the
// children in `leftOut`. The copy's children pair with `kept`, the
// originals, by position.
struct ActionCopy {
  std::unique_ptr<KEELComponent> root;
  std::vector<const KEELComponent*> kept;
};

ActionCopy CopyWithout(const KEELComponent* action, const std::set<const KEELComponent*>& leftOut) {
  ActionCopy copy;
  copy.root.reset(new KEELComponent(action->GetName(), action->GetValue()));
  for (const auto& attribute : action->GetAttributes())
    copy.root->AddAttribute(attribute->GetName(), attribute->GetValue());
  for (const auto& child : action->GetChildren()) {
    if (leftOut.count(child.get()) != 0)
      continue;
    copy.root->AddChild(new KEELComponent(*child));
    copy.kept.push_back(child.get());
  }
  return copy;
}

std::string NameHint(const std::string& name, Place place) {
  const std::string closest = ClosestName(name, ChildNamesAt(place));
  return closest.empty() ? "remove it" : "did you mean <" + closest + ">?";
}

void CheckVariablesOf(CheckContext& context, const KEELComponent* at, const std::string& text) {
  const VariableProblem problem = CheckVariables(text);
  if (problem.kind == VariableProblem::kUnset) {
    context.Warning(at, "$" + problem.name +
                            "/ is not set in this environment, so the tool keeps " +
                            Quoted("$" + problem.name + "/") + " in " + Tag(at) +
                            " as written; set " + problem.name + " or write the path out");
  } else if (problem.kind == VariableProblem::kEndless) {
    context.Warning(at, "$" + problem.name + "/ in " + Tag(at) +
                            " expands into variables again and again, so the tool never "
                            "finishes it; change the value of " +
                            problem.name);
  }
}

// The last direct child of that name, or `fallback`.
// A command whose first word names a folder that the tool adds to <path>
// and keeps in the name, so that the program runs as `runs`.
void WarnFolderKeptInName(CheckContext& context, const KEELComponent* at, const std::string& runs) {
  context.Warning(at, "the program runs as " + Quoted(runs) + ": the folder in the first word of " +
                          Tag(at) +
                          " is added to <path> and also kept in the name; give the bare name in " +
                          Tag(at) + " and its folder in <path>");
}

// The finding on a child that makes the tool drop its whole `group` action.
std::string NotAllowed(const KEELComponent* child, const char* group, Place place) {
  return Tag(child) + " is not allowed in a " + group + ": the tool drops the whole action; " +
         NameHint(child->GetName(), place);
}

// Leaves `child` out of the next parse; true once so many children are
// left out that the check gives up on the action.
bool LeaveOut(const KEELComponent* child, std::set<const KEELComponent*>& leftOut) {
  leftOut.insert(child);
  return leftOut.size() >= kMaxRefusedChildren;
}

const KEELComponent* LastChild(const KEELComponent* parent, const std::string& name,
                               const KEELComponent* fallback) {
  const KEELComponent* last = fallback;
  for (const auto& child : parent->GetChildren()) {
    if (child->GetName() == name)
      last = child.get();
  }
  return last;
}

void WarnEmptyLoc(CheckContext& context, const KEELComponent* action) {
  context.Warning(LastChild(action, "loc", action),
                  "empty <loc>: the tool searches an empty path and finds nothing; give the "
                  "path of what to copy");
}

void CheckFileCopy(CheckContext& context, const KEELComponent* action) {
  XMLObject subtree(action);
  FileActionAttributes attributes;
  if (KEELAction::parseFileActionAttributes(subtree, attributes) != 0)
    return;
  if (attributes.loc.empty()) {
    WarnEmptyLoc(context, action);
    return;
  }
  const KEELComponent* loc = LastChild(action, "loc", action);
  CheckVariablesOf(context, loc, attributes.loc);
  const std::string folder = helperUtil::splitBeforeLast(attributes.loc, "/", true);
  if (folder.find_first_of("*?") != std::string::npos) {
    context.Warning(loc, "wildcards work only in the last part of <loc>: the folder " +
                             Quoted(folder) +
                             " is taken as written; name the folder without * or ?");
  }
}

void CheckDirectoryCopy(CheckContext& context, const KEELComponent* action) {
  std::set<const KEELComponent*> leftOut;
  DirectoryActionAttributes attributes;
  for (;;) {
    const ActionCopy copy = CopyWithout(action, leftOut);
    XMLObject subtree(copy.root.get());
    attributes = DirectoryActionAttributes();
    const ResultCode result = KEELAction::parseDirectoryActionAttributes(subtree, attributes);
    if (result == 0)
      break;
    const KEELComponent* foreign = nullptr;
    for (const KEELComponent* child : copy.kept) {
      if (child->GetName() != "loc" && child->GetName() != "pattern") {
        foreign = child;
        break;
      }
    }
    if (foreign == nullptr) {
      context.Error(action, "the tool refuses this directory_copy_action and drops it");
      return;
    }
    context.Error(foreign, NotAllowed(foreign, "directory_copy_action", Place::kDirectoryAction));
    if (LeaveOut(foreign, leftOut))
      return;
  }
  if (attributes.loc.empty())
    WarnEmptyLoc(context, action);
  else
    CheckVariablesOf(context, LastChild(action, "loc", action), attributes.loc);
  if (attributes.patterns.empty()) {
    context.Warning(action,
                    "directory_copy_action without <pattern> copies nothing; add "
                    "<pattern>*</pattern> to copy every file");
  }
  for (const auto& child : action->GetChildren()) {
    if (child->GetName() == "pattern" && child->GetValue().empty())
      context.Warning(child.get(), "empty <pattern> matches no file; give one such as *.log");
  }
}

// What the command line of a launch-form run becomes: `path` is the folder
// after the parser has added the command's own folder to it, `written` the
// folder that the path element gave.
void CheckLaunchCommand(CheckContext& context, const KEELComponent* at, const std::string& path,
                        const std::string& written, const std::string& commandLine) {
  const std::string first = FirstWord(commandLine);
  if (first.empty()) {
    context.Warning(at, Tag(at) + " holds no program to run; give one");
    return;
  }
  const std::string runs = path + "/" + first;
  if (path.empty() && first.find('/') == std::string::npos) {
    context.Warning(at, "with no <path> the program runs as " + Quoted(runs) +
                            ", from the root folder; give its folder in <path>");
  } else if (first.find('/') != std::string::npos) {
    const std::string meant = first[0] == '/' || written.empty() ? first : written + "/" + first;
    if (LexicallyTidy(runs) != LexicallyTidy(meant)) {
      WarnFolderKeptInName(context, at, runs);
    }
  }
  const std::string rest = RestAfterFirstWord(commandLine);
  if (rest.find_first_of(" \t\n") != std::string::npos) {
    context.Warning(at, "the launch form hands " + Quoted(rest) + " to " + first +
                            " as one single argument; to run a command line, capture its "
                            "output with <temp_out> and <stdout/>, which runs it through the "
                            "shell");
  }
  std::string unbounded;
  if (CheckTimeBound(commandLine, false, unbounded) != TimeBound::kBounded) {
    context.Warning(at, Quoted(unbounded) +
                            " is not bounded in time, so a program that hangs holds the whole "
                            "run for ever; run it in the shell form (<temp_out> and <stdout/>) "
                            "under \"timeout --kill-after=5 30 ...\"");
  }
}

void CheckShellCommand(CheckContext& context, const KEELComponent* at, const std::string& path,
                       const std::string& written, const std::string& commandLine) {
  const std::string first = FirstWord(commandLine);
  if (!first.empty() && first[0] != '/' && first.find('/') != std::string::npos && !path.empty()) {
    const std::string runs = path + "/" + first;
    const std::string meant = written.empty() ? first : written + "/" + first;
    if (LexicallyTidy(runs) != LexicallyTidy(meant)) {
      WarnFolderKeptInName(context, at, runs);
    }
  }
  std::string unbounded;
  const TimeBound bound = CheckTimeBound(commandLine, true, unbounded);
  if (bound == TimeBound::kNoTimeout) {
    context.Warning(at, Quoted(unbounded) +
                            " is not bounded in time, so a program that hangs holds the whole "
                            "run for ever; run it under \"timeout --kill-after=5 30 ...\"");
  } else if (bound == TimeBound::kNoKillAfter) {
    context.Warning(at, Quoted(unbounded) +
                            " runs under timeout without --kill-after, so a program that "
                            "ignores SIGTERM still holds the run; add --kill-after=5");
  }
}

// Parses until the parser takes what is left; reports each refused child.
// False when the action cannot be parsed at all.
bool ParseExternal(CheckContext& context, const KEELComponent* action, bool isAdmin,
                   ExternalActionAttributes& attributes, std::string& writtenPath,
                   std::set<const KEELComponent*>& leftOut) {
  for (;;) {
    ActionCopy copy = CopyWithout(action, leftOut);
    XMLObject subtree(copy.root.get());
    const ResultCode result =
        KEELAction::parseExternalActionAttributes(subtree, isAdmin, attributes);
    if (result == 0) {
      // The folder as the path element gave it, before the parser added
      // the command's own folder: the last one written wins.
      writtenPath.clear();
      for (const auto& child : copy.root->GetChildren()) {
        const std::string name = child->GetName();
        if (name == "path" || name == "plugin" || name == "regis" || name == "regis64")
          writtenPath = KEELAction::getPath(child.get());
      }
      return true;
    }
    const KEELComponent* refused = nullptr;
    for (const KEELComponent* child : copy.kept) {
      const std::string name = child->GetName();
      if (!IsExternalName(name) || (LeafOnlyNames().count(name) != 0 && !child->IsLeaf())) {
        refused = child;
        break;
      }
    }
    if (refused == nullptr) {
      context.Error(action, "the tool refuses this use_extern_action and drops it");
      return false;
    }
    if (result == KEELENGINE_ERROR_INVALID_XML) {
      context.Error(refused, Tag(refused) +
                                 " holds elements: the tool drops the whole action; it takes "
                                 "text only here");
    } else {
      context.Error(refused, NotAllowed(refused, "use_extern_action", Place::kExternalAction));
    }
    if (LeaveOut(refused, leftOut))
      return false;
  }
}

// The element whose text the parser took as the command line.
const KEELComponent* CommandElement(const KEELComponent* action, const std::string& args) {
  const KEELComponent* found = nullptr;
  for (const auto& child : action->GetChildren()) {
    const std::string name = child->GetName();
    if ((name == "args" || name == "admin_args") && child->GetValue() == args)
      found = child.get();
  }
  return found != nullptr ? found : action;
}

void CheckExternal(CheckContext& context, const KEELComponent* action) {
  ExternalActionAttributes attributes;
  std::string written;
  std::set<const KEELComponent*> refused;
  if (!ParseExternal(context, action, helperUtil::isUserAdmin(), attributes, written, refused))
    return;
  // With a refused command element, what is left says nothing about the
  // command that was meant.
  bool commandRefused = false;
  for (const KEELComponent* child : refused)
    commandRefused =
        commandRefused || child->GetName() == "args" || child->GetName() == "admin_args";

  const KEELComponent* tempOut = LastChild(action, "temp_out", action);
  if (!attributes.tempOut.empty()) {
    CheckVariablesOf(context, tempOut, attributes.tempOut);
    if (attributes.tempOut.find('/') != std::string::npos) {
      context.Warning(tempOut, "<temp_out> " + Quoted(attributes.tempOut) +
                                   " holds a \"/\": after the run the file is copied into the "
                                   "bundle and then deleted there; give a bare file name to have "
                                   "the output written in the bundle");
    }
  }
  if (attributes.clear) {
    const KEELComponent* clear = LastChild(action, "clear_log", action);
    CheckLaunchCommand(context, clear, attributes.path, written, attributes.clearCommand);
  }

  if (commandRefused)
    return;
  const KEELComponent* command = CommandElement(action, attributes.args);
  if (attributes.args.empty()) {
    context.Warning(command,
                    "no command line: <args> is missing or empty (an <admin_args> never "
                    "applies on this system); give the command in <args>");
    return;
  }
  if (attributes.replaceArgs && attributes.args.find("[USER]") != std::string::npos) {
    context.Warning(command,
                    "[USER] in a command with replace_args=\"true\" is never filled in "
                    "on this system, so the command never runs; leave [USER] out");
  }
  const KEELComponent* pathElement = LastChild(action, "path", nullptr);
  if (pathElement != nullptr)
    CheckVariablesOf(context, pathElement, written);
  CheckVariablesOf(context, command, attributes.args);
  if (attributes.captureStdout)
    CheckShellCommand(context, command, attributes.path, written, attributes.args);
  else
    CheckLaunchCommand(context, command, attributes.path, written, attributes.args);
}

}  // namespace

void CheckActions(CheckContext& context, const KEELComponent* os) {
  for (const auto& group : os->GetChildren()) {
    const std::string name = group->GetName();
    for (const auto& action : group->GetChildren()) {
      if (name == "file_copy_action")
        CheckFileCopy(context, action.get());
      else if (name == "directory_copy_action")
        CheckDirectoryCopy(context, action.get());
      else if (name == "use_extern_action")
        CheckExternal(context, action.get());
    }
  }
}

}  // namespace keelcheck
