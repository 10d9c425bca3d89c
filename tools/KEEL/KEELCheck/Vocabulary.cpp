#include "tools/KEEL/KEELCheck/Vocabulary.h"

#include <algorithm>
#include <cctype>
#include <map>

namespace keelcheck {

namespace {

typedef std::vector<std::string> Names;

// Lower case without underscores: "gatherNewest" and "gather_newest" meet.
std::string Folded(const std::string& name) {
  std::string folded;
  for (char c : name) {
    if (c != '_')
      folded += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return folded;
}

}  // namespace

const std::vector<std::string>& KnownElementNames() {
  static const Names names = {"fileGroup",
                              "file",
                              "name",
                              "description",
                              "default",
                              "keel",
                              "os",
                              "title",
                              "configure",
                              "comments",
                              "protocol",
                              "url",
                              "bundle",
                              "upload_size",
                              "file_copy_action",
                              "directory_copy_action",
                              "use_extern_action",
                              "path",
                              "plugin",
                              "regis",
                              "regis64",
                              "args",
                              "admin_args",
                              "clear_log",
                              "temp_out",
                              "stdout",
                              "loc",
                              "pattern",
                              "truncate_type"};
  return names;
}

const std::vector<std::string>& KnownAttributeNames() {
  static const Names names = {"treeRootName",  "directoryName", "id",          "opsys",
                              "gather_newest", "apply",         "replace_args"};
  return names;
}

bool IsKnownElementName(const std::string& name) {
  const Names& names = KnownElementNames();
  return std::find(names.begin(), names.end(), name) != names.end();
}

const std::vector<std::string>& ChildNamesAt(Place place) {
  static const std::map<Place, Names> children = {
      {Place::kRoot, {"configure", "fileGroup"}},
      {Place::kConfigure, {"title"}},
      {Place::kFileGroup, {"title", "file"}},
      {Place::kFile, {"name", "description", "default", "keel"}},
      {Place::kKeel, {"os"}},
      {Place::kOs, {"file_copy_action", "directory_copy_action", "use_extern_action"}},
      {Place::kFileCopyAction, {"loc", "truncate_type", "clear_log"}},
      {Place::kDirectoryAction, {"loc", "pattern"}},
      {Place::kExternalAction,
       {"path", "plugin", "regis", "regis64", "args", "admin_args", "clear_log", "temp_out",
        "stdout"}},
  };
  static const Names none;
  const auto found = children.find(place);
  return found != children.end() ? found->second : none;
}

const std::vector<std::string>& AttributeNamesOf(const std::string& element) {
  static const std::map<std::string, Names> attributes = {
      {"fileGroup", {"treeRootName", "directoryName"}},
      {"file", {"id", "directoryName"}},
      {"os", {"opsys"}},
      {"loc", {"gather_newest"}},
      {"clear_log", {"apply"}},
      {"args", {"replace_args"}},
      {"admin_args", {"replace_args"}},
  };
  static const Names none;
  const auto found = attributes.find(element);
  return found != attributes.end() ? found->second : none;
}

Place PlaceOfChild(Place parent, const std::string& name) {
  switch (parent) {
    case Place::kRoot:
      if (name == "configure")
        return Place::kConfigure;
      return name == "fileGroup" ? Place::kFileGroup : Place::kOther;
    case Place::kFileGroup:
      return name == "file" ? Place::kFile : Place::kOther;
    case Place::kFile:
      return name == "keel" ? Place::kKeel : Place::kOther;
    case Place::kKeel:
      return name == "os" ? Place::kOs : Place::kOther;
    case Place::kOs:
      return name == "file_copy_action" || name == "directory_copy_action" ||
                     name == "use_extern_action"
                 ? Place::kGroup
                 : Place::kOther;
    default:
      return Place::kOther;
  }
}

size_t EditDistance(const std::string& a, const std::string& b) {
  // Three rows of the classic table are enough for transpositions.
  std::vector<size_t> before(b.size() + 1), previous(b.size() + 1), current(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j)
    previous[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    current[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
      current[j] = std::min({previous[j] + 1, current[j - 1] + 1, previous[j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        current[j] = std::min(current[j], before[j - 2] + 1);
    }
    before.swap(previous);
    previous.swap(current);
  }
  return previous[b.size()];
}

bool IsCloseName(const std::string& written, const std::string& known) {
  if (written == known)
    return false;
  if (Folded(written) == Folded(known))
    return true;
  const size_t allowed = known.size() <= 4 ? 1 : 2;
  // Names far apart in length cannot be close; skip the table for them.
  const size_t gap =
      written.size() > known.size() ? written.size() - known.size() : known.size() - written.size();
  return gap <= allowed && EditDistance(written, known) <= allowed;
}

std::string ClosestName(const std::string& written, const std::vector<std::string>& candidates) {
  std::string best;
  size_t bestDistance = 0;
  for (const std::string& candidate : candidates) {
    if (candidate == written)
      return std::string();
    if (!IsCloseName(written, candidate))
      continue;
    const size_t distance =
        Folded(written) == Folded(candidate) ? 0 : EditDistance(written, candidate);
    if (best.empty() || distance < bestDistance) {
      best = candidate;
      bestDistance = distance;
    }
  }
  return best;
}

}  // namespace keelcheck
