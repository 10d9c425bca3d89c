// Env: everything a run asks of the host that a test must be able to
// replace, in one place.
//
// It gives the fixed places on the host (HostPaths), the two clocks (the
// processor time that limits an external program, and the local time the
// summary's head shows), the other facts of the summary's head, and the
// starting of programs: a CProcessApi for the launch form and the shell for
// the shell form. Production code uses Env::Default(); a test derives from
// Env and overrides what it needs.
//
// The engine is handed one Env and passes it to every collector and, through
// ActionSettings, to every action; none of them owns it. Pool threads call it
// at once, so an Env must be safe to call from any thread: the default one
// keeps no state that changes.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_ENV_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_ENV_H_

#include <ctime>
#include <memory>
#include <ostream>
#include <string>

#include "Common/Result/ResultCode.h"
#include "Common/Utility/HostPaths.h"

class CProcessApi;

class Env {
 public:
  Env() = default;
  virtual ~Env();

  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;

  // The host itself; lives as long as the process.
  static Env* Default();

  virtual const HostPaths& paths() const;

  // Processor time used by this process, in clock() units.
  virtual clock_t processorClock() const;
  // The local time as the summary's head shows it.
  virtual std::string localTimeText() const;
  // The release description, the session's user, and `path` made absolute
  // against the current folder, as the summary's head shows them.
  virtual std::string osDescription() const;
  virtual std::string userName() const;
  virtual std::string absolutePath(const std::string& path) const;

  // A fresh launcher for one external program (the launch form).
  virtual std::unique_ptr<CProcessApi> newProcessApi() const;
  // Runs `command` through /bin/sh and copies its standard output into
  // `output` (the shell form); 0 once the output was read to its end.
  virtual ResultCode runShell(const std::string& command, std::ostream& output) const;

 private:
  HostPaths m_paths;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_ENV_H_
