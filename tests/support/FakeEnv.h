// A host for the engine's tests: an Env whose paths, clocks, summary facts
// and programs a test sets.
//
// By default a FakeEnv is the real host except for its paths (a test points
// them into a temporary folder); each other part is replaced only when a
// test asks: fixed summary facts, a scripted processor clock, a fake
// launcher. The engine, its collectors and actions borrow it; the test owns
// it. All members may be called from pool threads at once.
#ifndef TESTS_SUPPORT_FAKEENV_H_
#define TESTS_SUPPORT_FAKEENV_H_

#include <stdint.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Common/IPC/ProcessAPI_unix.h"
#include "tools/KEEL/KEELEngine/implementations/Env.h"

namespace keeltest {

// What the programs of a fake launcher do, and what was asked of them.
struct FakePrograms {
  // Launch's answer; not 0 means the program fails to start.
  ResultCode launchResult = 0;
  // How many polls find the program running before it has ended; negative
  // means it runs until it is killed.
  int runningPolls = 0;
  // WaitForProcess's answer while it runs: 0 for an exit,
  // PROCESS_API_ERROR_WAIT_TIMEOUT for a wait that ran out or an end by a
  // signal.
  ResultCode waitResult = PROCESS_API_ERROR_WAIT_TIMEOUT;

  // What was asked, in order.
  std::vector<std::vector<std::string>> launched;  // argv of each launch
  std::vector<std::string> launchFolders;          // attributes.path of each
  std::vector<int32_t> killed;                     // pids killed
  int polls = 0;
};

// A CProcessApi whose processes are FakePrograms: nothing is started.
class FakeProcessApi : public CProcessApi {
 public:
  FakeProcessApi(std::shared_ptr<FakePrograms> programs, std::shared_ptr<std::mutex> lock)
      : m_programs(std::move(programs)), m_lock(std::move(lock)) {}

  ResultCode Launch(ProcessAttributes& attributes, const std::vector<const char*>& argv) override {
    std::lock_guard<std::mutex> guard(*m_lock);
    m_programs->launched.emplace_back(argv.begin(), argv.end());
    m_programs->launchFolders.push_back(attributes.path != nullptr ? attributes.path : "<none>");
    if (m_programs->launchResult != 0)
      return m_programs->launchResult;
    attributes.pid = kFakePid;
    m_runningPolls = m_programs->runningPolls;
    return 0;
  }
  ResultCode PollProcess(int32_t) override {
    std::lock_guard<std::mutex> guard(*m_lock);
    ++m_programs->polls;
    if (m_killed || m_runningPolls == 0)
      return PROCESS_API_ERROR_NOTRUNNING;
    if (m_runningPolls > 0)
      --m_runningPolls;
    return 0;
  }
  ResultCode WaitForProcess(int32_t, int32_t* exitCode, CCEvent*, bool, uint32_t) override {
    std::lock_guard<std::mutex> guard(*m_lock);
    if (exitCode != nullptr)
      *exitCode = 0;
    return m_programs->waitResult;
  }
  ResultCode KillProcess(int32_t pid) override {
    std::lock_guard<std::mutex> guard(*m_lock);
    m_programs->killed.push_back(pid);
    m_killed = true;
    return 0;
  }

  static constexpr int32_t kFakePid = 424242;

 private:
  std::shared_ptr<FakePrograms> m_programs;
  std::shared_ptr<std::mutex> m_lock;
  int m_runningPolls = 0;
  bool m_killed = false;
};

class FakeEnv : public Env {
 public:
  // The paths, for a test to point into its own folders.
  HostPaths& EditPaths() { return m_paths; }
  const HostPaths& paths() const override { return m_paths; }

  // The processor clock answers these in turn, then the last one forever;
  // empty means the real clock.
  void SetClock(std::vector<clock_t> ticks) {
    std::lock_guard<std::mutex> guard(*m_lock);
    m_ticks = std::move(ticks);
    m_clockCalls = 0;
  }
  int ClockCalls() const {
    std::lock_guard<std::mutex> guard(*m_lock);
    return m_clockCalls;
  }
  clock_t processorClock() const override {
    std::lock_guard<std::mutex> guard(*m_lock);
    if (m_ticks.empty())
      return Env::processorClock();
    const size_t index = std::min(static_cast<size_t>(m_clockCalls), m_ticks.size() - 1);
    ++m_clockCalls;
    return m_ticks[index];
  }

  // Fixed answers for the summary's head: time, release, user, and a current
  // folder below which relative bundle paths are shown.
  void SetSummaryFacts(const std::string& time, const std::string& os, const std::string& user,
                       const std::string& currentFolder) {
    m_facts.reset(new Facts{time, os, user, currentFolder});
  }
  std::string localTimeText() const override {
    return m_facts ? m_facts->time : Env::localTimeText();
  }
  std::string osDescription() const override {
    return m_facts ? m_facts->os : Env::osDescription();
  }
  std::string userName() const override { return m_facts ? m_facts->user : Env::userName(); }
  std::string absolutePath(const std::string& path) const override {
    if (!m_facts)
      return Env::absolutePath(path);
    return !path.empty() && path[0] == '/' ? path : m_facts->currentFolder + path;
  }

  // From now on programs of the launch form are FakePrograms (returned for
  // the test to script and read); the shell form still runs for real.
  std::shared_ptr<FakePrograms> UseFakePrograms() {
    m_programs = std::make_shared<FakePrograms>();
    return m_programs;
  }
  std::unique_ptr<CProcessApi> newProcessApi() const override {
    if (!m_programs)
      return Env::newProcessApi();
    return std::unique_ptr<CProcessApi>(new FakeProcessApi(m_programs, m_lock));
  }

 private:
  struct Facts {
    std::string time;
    std::string os;
    std::string user;
    std::string currentFolder;
  };
  HostPaths m_paths;
  std::shared_ptr<std::mutex> m_lock = std::make_shared<std::mutex>();
  std::vector<clock_t> m_ticks;
  mutable int m_clockCalls = 0;
  std::unique_ptr<Facts> m_facts;
  std::shared_ptr<FakePrograms> m_programs;
};

}  // namespace keeltest

#endif  // TESTS_SUPPORT_FAKEENV_H_
