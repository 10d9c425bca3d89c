// KEELEngine: carries one run from start to end.
//
// Given where the instructions are, where the bundle goes and a few flags,
// it either makes a bundle (runCollectorThreads: configs collected on a pool
// of 1 to 6 threads into a working folder, which is then zipped) or clears
// logs (clearLogs, all on the calling thread). Everything it shows the user
// goes through helperUtil::reportStatus.
//
// The engine is held by a shared pointer: every queued job of the pool keeps
// it alive. It owns the parsed config documents, its loaders and the empty
// request document; the Env it is given belongs to the caller and is shared
// with every collector and action. run() is called once, from the main thread; only
// collectLog runs on pool threads, and it touches the failed list under
// failedListLock, the done count atomically, the status channel under the
// status lock, and the summary-failure flag atomically.
//
// While run() works, SIGINT, SIGTERM, SIGHUP and every other signal that
// would end the process end the programs the run started and remove its
// working folder and any unfinished bundle file before the process exits
// (CInterruptGuard). A thread the system refuses (the guard's watcher or a
// thread of the pool) ends the run with "Internal Error: failed to start a
// thread..." before anything is left behind.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELENGINE_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELENGINE_H_

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "Common/Result/ResultCode.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELMgr.h"

class KEELComponent;
class KEELXmlLoader;
class XMLObject;
class Env;
class collector;
class KEELWorkingFolder;

class KEELEngine : public std::enable_shared_from_this<KEELEngine> {
 public:
  // `env` is the host the run works on (its working folder, clocks and
  // programs); not owned, it must outlive the engine. Null means
  // Env::Default().
  KEELEngine(const std::string& requestFile, const std::string& configFolder,
             const std::string& bundlePath, const std::string& archivePassword, bool clearMode,
             bool includeLegacyLogs, bool includeSystemLogs, Env* env = nullptr);
  ~KEELEngine();

  KEELEngine(const KEELEngine&) = delete;
  KEELEngine& operator=(const KEELEngine&) = delete;

  // clearLogs() in clear mode, else runCollectorThreads().
  ResultCode run();
  ResultCode runCollectorThreads();
  ResultCode clearLogs();

  // The body of one pool job: collects one config document.
  void collectLog(XMLObject* document, int32_t index, std::shared_ptr<collector> job);
  // Appends the failed configs and the unprocessed-request heading.
  ResultCode writeFailedFilesToSummary(const std::string& path);

  // Threads of the pool for a reported hardware concurrency: 1 to 6.
  static unsigned poolSize(int hardwareConcurrency);
  // Posts one job per non-null config document, in list order, on a pool
  // of `threads` threads, and waits for all of them. 0, or
  // THREAD_ERROR_CREATE_FAILED, before any job ran, when the system refused
  // a thread.
  ResultCode collectAll(unsigned threads);

  // Takes ownership of a parsed config document (appended to the list;
  // null entries are kept and passed over).
  void adoptConfigDocument(XMLObject* document) { configDocs.emplace_back(document); }
  std::list<std::string> failedConfigList();
  const std::string& workingFolder() const { return tempFolder; }
  const std::string& bundleLocation() const { return bundlePath; }

 private:
  // Reports `message`, removes the working folder this run made (with
  // everything below it), and returns `code`.
  ResultCode fail(ResultCode code, const std::string& message);
  ResultCode loadRequest();
  void loadConfigs();
  ResultCode prepareWorkingFolder();
  std::shared_ptr<collector> makeCollector();

  Env* env;
  bool clearMode;
  std::unique_ptr<collector> clearCollector;
  std::unique_ptr<KEELXmlLoader> configMgr;
  std::unique_ptr<KEELXmlLoader> requestMgr;
  std::list<KEELComponent*> unprocessedIds;
  std::list<std::string> failedConfigs;
  std::list<std::unique_ptr<XMLObject>> configDocs;
  std::string requestFile;
  std::string configFolder;
  std::string tempFolder;
  std::string bundlePath;
  std::string archivePassword;
  XMLObject* request = nullptr;
  std::unique_ptr<XMLObject> emptyRequest;
  bool includeSystemLogs;
  bool includeLegacyLogs;
  std::mutex failedListLock;
  // The folder this run made and holds; null until made.
  std::unique_ptr<KEELWorkingFolder> workingFolderOwner;
  // Set by a job whose part of summary.txt could not be written whole.
  std::atomic<bool> summaryWriteFailed{false};
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELENGINE_H_
