// Names, values and the shape of the instructions, as the tool looks them
// up: the tool compares exact names and values, and passes over whatever
// does not match without a word.
#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/KEEL/KEELCheck/CheckContext.h"
#include "tools/KEEL/KEELCheck/DocumentChecks.h"
#include "tools/KEEL/KEELCheck/Vocabulary.h"
#include "tools/KEEL/KEELEngine/implementations/collector.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace keelcheck {

namespace {

bool IsFlagAttribute(const std::string& element, const std::string& attribute) {
  return (element == "loc" && attribute == "gather_newest") ||
         (element == "clear_log" && attribute == "apply") ||
         ((element == "args" || element == "admin_args") && attribute == "replace_args");
}

void CheckAttributes(CheckContext& context, const KEELComponent* component) {
  const std::string element = component->GetName();
  const std::vector<std::string>& known = AttributeNamesOf(element);
  for (const auto& attribute : component->GetAttributes()) {
    const std::string name = attribute->GetName();
    const std::string value = attribute->GetValue();
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      std::string closest = ClosestName(name, known);
      if (closest.empty())
        closest = ClosestName(name, KnownAttributeNames());
      if (!closest.empty()) {
        context.Warning(component, "attribute " + name + " of " + Tag(component) +
                                       " is never read; did you mean " + closest + "?");
      }
      continue;
    }
    if (IsFlagAttribute(element, name) && value != "true" && value != "false") {
      context.Warning(component, name + "=" + Quoted(value) + " on " + Tag(component) +
                                     " is not \"true\", so the tool takes it as false; "
                                     "write true or false");
    }
    if (element == "os" && name == "opsys" && value != "linux" && value != "mac" &&
        value != "win") {
      context.Warning(component, "opsys=" + Quoted(value) +
                                     " names no system the tool knows, so this block never "
                                     "runs; write linux, mac or win");
    }
  }
}

// A child name the tool never reads at this place, when it is close to
// one it does. Below an action of use_extern_action or
// directory_copy_action a foreign name is an error of its own, reported by
// the action checks.
void CheckChildName(CheckContext& context, Place place, const KEELComponent* child) {
  if (place == Place::kGroup || place == Place::kOther || place == Place::kExternalAction ||
      place == Place::kDirectoryAction) {
    return;
  }
  const std::string name = child->GetName();
  const std::vector<std::string>& here = ChildNamesAt(place);
  if (std::find(here.begin(), here.end(), name) != here.end())
    return;
  std::string closest = ClosestName(name, here);
  if (closest.empty() && !IsKnownElementName(name))
    closest = ClosestName(name, KnownElementNames());
  if (!closest.empty()) {
    context.Warning(child, Tag(child) + " is never read here; did you mean <" + closest + ">?");
  }
}

Place ActionPlaceOf(const std::string& groupName) {
  if (groupName == "file_copy_action")
    return Place::kFileCopyAction;
  if (groupName == "directory_copy_action")
    return Place::kDirectoryAction;
  if (groupName == "use_extern_action")
    return Place::kExternalAction;
  return Place::kOther;
}

// Every element below the root, with the place it stands in; without
// recursion, since a hostile file may nest deeply.
void CheckNames(CheckContext& context, const KEELComponent* root) {
  struct Pending {
    const KEELComponent* component;
    Place place;
  };
  std::vector<Pending> pending{{root, Place::kRoot}};
  while (!pending.empty()) {
    const Pending current = pending.back();
    pending.pop_back();
    if (current.place != Place::kRoot)
      CheckAttributes(context, current.component);
    const KEELComponentList& children = current.component->GetChildren();
    for (auto it = children.rbegin(); it != children.rend(); ++it) {
      const KEELComponent* child = it->get();
      CheckChildName(context, current.place, child);
      Place childPlace = PlaceOfChild(current.place, child->GetName());
      if (current.place == Place::kGroup)
        childPlace = ActionPlaceOf(current.component->GetName());
      pending.push_back({child, childPlace});
    }
  }
}

std::string Describe(const KEELComponent* file) {
  return "<file id=" + Quoted(file->GetAttributeValue("id")) + ">";
}

// The block of one instruction for this system, as the tool finds it: the
// first `os` with opsys "linux" among the direct children of the `keel`
// that FindChild yields. Null when there is none; reports what is amiss.
const KEELComponent* BlockForThisSystem(CheckContext& context, const KEELComponent* file) {
  const KEELComponent* keel = file->FindChild("keel");
  if (keel == nullptr) {
    context.Warning(file, Describe(file) +
                              " has no <keel>, so nothing runs for it; add "
                              "<keel><os opsys=\"linux\">...</os></keel>");
    return nullptr;
  }
  const KEELComponent* first = nullptr;
  for (const auto& child : keel->GetChildren()) {
    if (child->GetName() != "os" || child->GetAttributeValue("opsys") != "linux")
      continue;
    if (first == nullptr) {
      first = child.get();
    } else {
      context.Warning(child.get(),
                      "a second <os opsys=\"linux\"> is never used: only the first one runs; "
                      "move its actions into the first");
    }
  }
  if (first == nullptr) {
    context.Warning(file, Describe(file) +
                              " has no <os opsys=\"linux\"> block, so nothing is gathered for "
                              "it on this system; add one");
  }
  return first;
}

void CheckDefault(CheckContext& context, const KEELComponent* file) {
  const KEELComponent* flag = file->FindChild("default");
  if (flag == nullptr)
    return;
  const std::string value = flag->GetValue();
  if (value != "true" && value != "false") {
    context.Warning(flag, "<default> " + Quoted(value) +
                              " is not \"true\", so a bundle run does not take " + Describe(file) +
                              "; write true or false");
  }
}

}  // namespace

void CheckStructure(CheckContext& context, XMLObject& document) {
  const KEELComponent* root = document.GetRoot();
  if (root == nullptr)
    return;
  CheckNames(context, root);
  for (KEELComponent* group : collector::getFileGroupComponents(document)) {
    std::map<std::string, const KEELComponent*> firstById;
    for (KEELComponent* file : collector::getFileGroupFileComponents(group)) {
      const std::string id = file->GetAttributeValue("id");
      if (!id.empty()) {
        const auto inserted = firstById.insert(std::make_pair(id, file));
        if (!inserted.second) {
          const long first = context.IndexOf(inserted.first->second);
          const std::string where =
              first == CheckContext::kNoElement
                  ? std::string()
                  : " (first at line " +
                        std::to_string(context.map().elements()[static_cast<size_t>(first)].line) +
                        ")";
          context.Warning(file, "file id " + Quoted(id) + " is used twice in this group" + where +
                                    ": both run and the summary lists them as one; give each "
                                    "instruction its own id");
        }
      }
      CheckDefault(context, file);
      const KEELComponent* block = BlockForThisSystem(context, file);
      if (block != nullptr)
        CheckActions(context, block);
    }
  }
}

}  // namespace keelcheck
