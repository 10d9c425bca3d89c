// Finding the processes a test started by a text in their command line
// (for example the path of a script in the test's own folder), so that a
// test can tell whether any of them still runs without trusting a pid that
// may have been reused. Zombies have an empty command line and so never
// count as running.
#ifndef TESTS_SUPPORT_PROCESSMARKERS_H_
#define TESTS_SUPPORT_PROCESSMARKERS_H_

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace keeltest {

// Writes `folder`/helper.sh, a script that marks itself ready and then runs
// until it is killed, and returns shell text that starts it through a
// double fork in a session of its own (as a daemon leaves its parent),
// holding the caller's standard output unless `quiet`, and waits until it
// runs. The helper's path is its marker.
inline std::string StartSessionLeavingHelper(const std::string& folder, bool quiet = true) {
  const std::string helper = folder + "/helper.sh";
  const std::string ready = folder + "/helper.ready";
  WriteFile(helper, "touch '" + ready + "'\nwhile :; do sleep 1; done\n");
  chmod(helper.c_str(), 0755);
  return std::string("( setsid sh '") + helper + "' </dev/null " + (quiet ? ">/dev/null " : "") +
         "2>/dev/null & )\nwhile [ ! -e '" + ready + "' ]; do sleep 0.01; done\n";
}

// The pids whose command line (arguments joined by blanks) holds `marker`.
inline std::vector<pid_t> ProcessesWithMarker(const std::string& marker) {
  std::vector<pid_t> found;
  DIR* proc = opendir("/proc");
  if (proc == nullptr)
    return found;
  while (dirent* entry = readdir(proc)) {
    if (!isdigit(static_cast<unsigned char>(entry->d_name[0])))
      continue;
    // Read by hand: the process may go while it is read.
    std::string line;
    const int fd = open((std::string("/proc/") + entry->d_name + "/cmdline").c_str(), O_RDONLY);
    if (fd < 0)
      continue;
    char buffer[4096];
    ssize_t count;
    while ((count = read(fd, buffer, sizeof(buffer))) > 0)
      line.append(buffer, static_cast<size_t>(count));
    close(fd);
    for (char& c : line) {
      if (c == '\0')
        c = ' ';
    }
    const pid_t pid = static_cast<pid_t>(atoi(entry->d_name));
    if (pid != getpid() && line.find(marker) != std::string::npos)
      found.push_back(pid);
  }
  closedir(proc);
  return found;
}

// Waits up to `limitMs` for every process with `marker` to be gone; true
// when none is left. A hang guard, not a measure of time.
inline bool NoProcessWithMarkerWithin(const std::string& marker, int limitMs) {
  for (int waited = 0;; waited += 20) {
    if (ProcessesWithMarker(marker).empty())
      return true;
    if (waited >= limitMs)
      return false;
    usleep(20000);
  }
}

// Kills what a failed test left running.
inline void KillProcessesWithMarker(const std::string& marker) {
  for (pid_t pid : ProcessesWithMarker(marker))
    kill(pid, SIGKILL);
}

}  // namespace keeltest

#endif  // TESTS_SUPPORT_PROCESSMARKERS_H_
