#include "tools/KEEL/KEELCheck/AccessCheck.h"

#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <stdlib.h>

#include <memory>
#include <vector>

namespace keelcheck {

namespace {

std::string GroupName(gid_t gid, bool& hasMembers) {
  hasMembers = false;
  struct group entry;
  struct group* found = nullptr;
  std::vector<char> buffer(16384);
  if (getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
    return std::string();
  hasMembers = found->gr_mem != nullptr && found->gr_mem[0] != nullptr;
  return found->gr_name != nullptr ? found->gr_name : "";
}

std::string UserName(uid_t uid) {
  struct passwd entry;
  struct passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr ||
      found->pw_name == nullptr) {
    return std::string();
  }
  return found->pw_name;
}

std::string Canonical(const std::string& path) {
  std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
  return resolved != nullptr ? std::string(resolved.get()) : std::string();
}

std::string ParentOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos)
    return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The folder `folder` (canonical) and those above it, up to "/". In a
// drop-in folder a new file is a new instruction, so the sticky bit does
// not make it safe.
void CheckFolders(const std::string& folder, bool dropIn, std::vector<AccessProblem>& problems) {
  std::string current = folder;
  for (;;) {
    struct stat info;
    if (stat(current.c_str(), &info) == 0) {
      const std::string writers = OtherWriters(info, !dropIn);
      if (!writers.empty())
        problems.push_back({current == "/" ? current : current + "/", true, writers});
    }
    if (current == "/" || current.empty())
      break;
    current = ParentOf(current);
    dropIn = false;
  }
}

}  // namespace

std::string OtherWriters(const struct stat& info, bool stickyGuards) {
  std::string writers;
  auto add = [&writers](const std::string& who) { writers += (writers.empty() ? "" : ", ") + who; };
  if (info.st_uid != 0) {
    const std::string name = UserName(info.st_uid);
    add("its owner " + (name.empty() ? std::string() : name + " ") + "(uid " +
        std::to_string(info.st_uid) + ")");
  }
  if ((info.st_mode & S_IWGRP) != 0) {
    bool hasMembers = false;
    const std::string name = GroupName(info.st_gid, hasMembers);
    if (info.st_gid != 0 || hasMembers) {
      add("group " + (name.empty() ? std::string() : name + " ") + "(gid " +
          std::to_string(info.st_gid) + ")");
    }
  }
  const bool guarded = stickyGuards && S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX) != 0;
  if ((info.st_mode & S_IWOTH) != 0 && !guarded)
    add("every user");
  return writers;
}

std::vector<AccessProblem> FileAccessProblems(const std::string& file) {
  std::vector<AccessProblem> problems;
  struct stat info;
  if (stat(file.c_str(), &info) == 0) {
    const std::string writers = OtherWriters(info, false);
    if (!writers.empty())
      problems.push_back({file, false, writers});
  }
  // The folder the tool lists, and the one the file really lies in.
  const std::string listed = Canonical(ParentOf(file));
  const std::string real = Canonical(file);
  if (!listed.empty())
    CheckFolders(listed, true, problems);
  if (!real.empty() && ParentOf(real) != listed) {
    std::vector<AccessProblem> more;
    CheckFolders(ParentOf(real), false, more);
    for (const AccessProblem& problem : more) {
      bool known = false;
      for (const AccessProblem& have : problems)
        known = known || have.path == problem.path;
      if (!known)
        problems.push_back(problem);
    }
  }
  return problems;
}

std::vector<AccessProblem> FolderAccessProblems(const std::string& folder) {
  std::vector<AccessProblem> problems;
  const std::string canonical = Canonical(folder);
  if (!canonical.empty())
    CheckFolders(canonical, true, problems);
  return problems;
}

}  // namespace keelcheck
