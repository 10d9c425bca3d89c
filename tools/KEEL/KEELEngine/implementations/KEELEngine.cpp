#include "tools/KEEL/KEELEngine/implementations/KEELEngine.h"

#include <cstdint>
#include <cstdio>
#include <list>
#include <string>
#include <thread>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "Common/Log/Log.h"
#include "Common/Utility/InterruptGuard.h"
#include "Common/Utility/JoinableThread.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/Thread.h"
#include "Common/Utility/sysutils.h"
#include "Common/Zip/CZip.h"
#include "tools/KEEL/KEELEngine/implementations/Env.h"
#include "tools/KEEL/KEELEngine/implementations/KEELUnfinishedBundles.h"
#include "tools/KEEL/KEELEngine/implementations/KEELWorkingFolder.h"
#include "tools/KEEL/KEELEngine/implementations/collector.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

const unsigned kMaxPoolThreads = 6;

void ReportProgress(int32_t percent, const char* message) {
  helperUtil::reportStatus(percent, message, KEELOFFLINE_ERROR_PROCESSING);
}

// The log lines of a job print the address of the id text with "%i": only a
// human reads them, and they are kept as they are.
int IdTextAddress(const std::string& text) {
  return static_cast<int>(reinterpret_cast<intptr_t>(text.c_str()));
}

const char kSummaryWriteFailedText[] = "Internal Error: failed to write the bundle summary...";
const char kThreadRefusedText[] = "Internal Error: failed to start a thread...";
const char kRandomNameText[] =
    "Warning: every usual working folder name is taken by someone else; working in \"";

}  // namespace

KEELEngine::KEELEngine(const std::string& requestFile, const std::string& configFolder,
                       const std::string& bundlePath, const std::string& archivePassword,
                       bool clearMode, bool includeLegacyLogs, bool includeSystemLogs, Env* env)
    : env(env != nullptr ? env : Env::Default()),
      clearMode(clearMode),
      requestFile(requestFile),
      configFolder(configFolder),
      tempFolder(helperUtil::translatePath(this->env->paths().workingFolder)),
      bundlePath(bundlePath),
      archivePassword(archivePassword),
      includeSystemLogs(includeSystemLogs),
      includeLegacyLogs(includeLegacyLogs) {}

KEELEngine::~KEELEngine() {
  configMgr.reset();
  requestMgr.reset();  // owns the request document, if there was one
  emptyRequest.reset();
  clearCollector.reset();
}

ResultCode KEELEngine::run() {
  // Ctrl-C or a kill in the middle must not leave root's copies in /tmp, a
  // half-written bundle, or programs running on; the guard cleans up and
  // ends the process with 128 plus the signal number.
  ResultCode refused = 0;
  const bool guarded = CInterruptGuard::Install(&refused);
  // A host that refuses the watcher thread will refuse the pool's threads
  // too: stop before anything is made. (A guard without its pipe lets the
  // run go on unguarded, as it always has.)
  if (!guarded && refused == THREAD_ERROR_CREATE_FAILED) {
    KLOG_E("the interrupt guard's thread could not be started");
    return fail(refused, kThreadRefusedText);
  }
  const ResultCode result = clearMode ? clearLogs() : runCollectorThreads();
  if (guarded)
    CInterruptGuard::Uninstall();
  return result;
}

ResultCode KEELEngine::fail(ResultCode code, const std::string& message) {
  helperUtil::reportStatus(0, message, code);
  collector::closeSummaryFile();
  // Only a folder this run made: the plain name may be another user's.
  if (workingFolderOwner)
    workingFolderOwner->remove();
  return code;
}

std::shared_ptr<collector> KEELEngine::makeCollector() {
  return std::make_shared<collector>(request, &unprocessedIds, bundlePath, includeLegacyLogs,
                                     includeSystemLogs, env);
}

ResultCode KEELEngine::loadRequest() {
  XMLObjectList loaded;
  requestMgr->Load(requestFile, KEELXmlLoader::kTypeFile, loaded);
  if (loaded.size() == 1) {
    request = loaded.front();
    KEELComponent* root = request->GetRoot();
    if (root == nullptr) {
      KLOG_E("request XML has no root");
      return fail(KEELENGINE_ERROR_NULL_POINTER,
                  "Internal Error: KEEL has encountered an error...");
    }
    for (const auto& child : root->GetChildren()) {
      if (child != nullptr && child->GetName() == "file")
        unprocessedIds.push_back(child.get());
    }
    return 0;
  }
  if (!requestFile.empty()) {
    KLOG_E("invalid request XML \"%s\"", requestFile.c_str());
    return fail(KEELENGINE_ERROR_INVALID_XML,
                "Internal Error: invalid request XML, please contact your administrator, or run "
                "in default mode");
  }
  // No request: an empty document, whose missing root asks every collector
  // for the default selection.
  emptyRequest.reset(new XMLObject());
  request = emptyRequest.get();
  return 0;
}

void KEELEngine::loadConfigs() {
  // A folder load hands over copies that the engine owns from here on.
  XMLObjectList loaded;
  configMgr->Load(helperUtil::getConfigFolder(configFolder), KEELXmlLoader::kTypeFolder, loaded);
  for (XMLObject* document : loaded)
    adoptConfigDocument(document);
}

ResultCode KEELEngine::prepareWorkingFolder() {
  workingFolderOwner.reset(new KEELWorkingFolder(tempFolder));
  // What runs of this user that are gone left: their working folders, and,
  // when no other run is alive to be zipping, their unfinished bundles.
  if (workingFolderOwner->removeLeftovers() == 0)
    removeUnfinishedBundles(bundlePath);
  const ResultCode cleared = workingFolderOwner->clearPlainName();
  if (cleared != 0)
    KLOG_RC(LOG_LEVEL_W, "helperUtil::fileDeleteDirectory", cleared);
  // A missing folder is reported as access denied, so an ordinary run takes
  // a fresh name as well; only a folder that was there and could be deleted
  // is worked in under the plain name.
  const bool tryPlainName = cleared == 0 || cleared == KEELENGINE_ERROR_FILE_NOT_FOUND;
  const ResultCode made = workingFolderOwner->make(tryPlainName);
  if (made != 0) {
    KLOG_RC(LOG_LEVEL_E, "helperUtil::MakeDirectory", made);
    return fail(made, "Internal Error: failed to create temporary working folder...");
  }
  tempFolder = workingFolderOwner->path();
  // The summary is the run's own before anything is collected: nothing
  // collected can take its name first or write what it says.
  if (collector::createSummaryFile(helperUtil::translatePath(tempFolder + "/" + "summary.txt")) !=
      0)
    return fail(KEELENGINE_ERROR_WRITE_FAILURE, kSummaryWriteFailedText);
  if (workingFolderOwner->tookRandomName())
    helperUtil::reportStatus(0, std::string(kRandomNameText) + tempFolder + "\"...",
                             KEELENGINE_ERROR_ACCESS_DENIED);
  return 0;
}

ResultCode KEELEngine::runCollectorThreads() {
  ReportProgress(1, "Starting up KEEL Engine...");
  configMgr.reset(new KEELXmlLoader());
  requestMgr.reset(new KEELXmlLoader());
  ReportProgress(1, "Parsing request and configuration XMLs...");
  ResultCode result = loadRequest();
  if (result != 0)
    return result;

  loadConfigs();
  helperUtil::setConfigCount(static_cast<uint32_t>(configDocs.size()));
  if (configDocs.empty()) {
    KLOG_E("no valid configuration XML found");
    return fail(KEELENGINE_ERROR_INTERNAL, "Internal Error: no valid configuration XML found...");
  }
  failedConfigs = configMgr->getFailedFiles();

  result = prepareWorkingFolder();
  if (result != 0)
    return result;

  ReportProgress(4, "Reading instructions ...");
  result = collectAll(poolSize(static_cast<int>(std::thread::hardware_concurrency())));
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "KEELEngine::collectAll", result);
    return fail(result, kThreadRefusedText);
  }

  result = 0;
  // A summary.txt with a part missing would tell its reader that files were
  // not collected when they were, or the reverse: no bundle rather than that.
  if (summaryWriteFailed) {
    KLOG_E("summary.txt could not be written whole");
    return fail(KEELENGINE_ERROR_WRITE_FAILURE, kSummaryWriteFailedText);
  }
  // Bare counts are compared: one entry per unparsed file or failed group
  // against one per parsed config.
  if (!failedConfigs.empty() && failedConfigs.size() == configDocs.size()) {
    KLOG_E("all configs failed");
    return fail(KEELENGINE_ERROR_INTERNAL, "Internal Error: all configs failed...");
  }
  {
    std::lock_guard<std::mutex> lock(collector::summaryLock());
    collector::reclaimSummaryName();
  }
  const ResultCode written = writeFailedFilesToSummary(tempFolder + "/" + "summary.txt");
  collector::closeSummaryFile();
  if (written != 0)
    KLOG_RC(LOG_LEVEL_W, "KEELEngine::writeFailedFilesToSummary", written);
  if (written == KEELENGINE_ERROR_WRITE_FAILURE)
    return fail(KEELENGINE_ERROR_WRITE_FAILURE, kSummaryWriteFailedText);

  ReportProgress(96, "Zipping the bundle, please wait...");
  const std::string extension = helperUtil::splitAfterLast(bundlePath, ".");
  if (extension != "zip")
    bundlePath += ".zip";
  result = CZip::Zip(tempFolder, bundlePath, archivePassword, true);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CZip::Zip", result);
    return fail(KEELENGINE_ERROR_WRITE_FAILURE, "Internal Error: failed to zip the bundle...");
  }
  workingFolderOwner->remove();
  helperUtil::reportStatus(100, "KEEL has finished... ", KEELOFFLINE_ERROR_PROCESSING);
  helperUtil::reportStatus(0, "", 0);
  return result;
}

unsigned KEELEngine::poolSize(int hardwareConcurrency) {
  int threads = hardwareConcurrency;
  if (threads > static_cast<int>(kMaxPoolThreads))
    threads = kMaxPoolThreads;
  if (threads <= 0)
    threads = 1;
  return static_cast<unsigned>(threads);
}

ResultCode KEELEngine::collectAll(unsigned threads) {
  // The pool starts no thread of its own: its constructor throws when the
  // system refuses one, and after a partial start its destructor would wait
  // for ever on the threads that did start. Threads started here without
  // exceptions join it instead, and a refusal stops the ones running.
  boost::asio::thread_pool pool(0);
  std::list<CJoinableThread> workers;
  for (unsigned i = 0; i < threads; ++i) {
    workers.emplace_back();
    const ResultCode started = workers.back().start([&pool] { pool.attach(); });
    if (started != 0) {
      pool.stop();
      return started;  // the list joins the started threads, which the stop lets go
    }
  }
  int32_t index = 0;
  for (const std::unique_ptr<XMLObject>& owned : configDocs) {
    XMLObject* document = owned.get();
    if (document != nullptr) {
      std::shared_ptr<collector> job = makeCollector();
      std::shared_ptr<KEELEngine> self = shared_from_this();
      boost::asio::post(pool,
                        [self, document, index, job] { self->collectLog(document, index, job); });
    }
    ++index;  // a null entry uses up its index too
  }
  // The workers leave the pool when the last job has run.
  pool.wait();
  for (CJoinableThread& worker : workers)
    worker.join();
  return 0;
}

void KEELEngine::collectLog(XMLObject* document, int32_t index, std::shared_ptr<collector> job) {
  const std::string startId = currentThreadIdText();
  KLOG_I("Thread %i Starting Collection", IdTextAddress(startId));
  const ResultCode result = job->Collect(tempFolder, document);
  if (result == KEELENGINE_ERROR_WRITE_FAILURE)
    summaryWriteFailed = true;
  if (result != 0) {
    std::list<KEELComponent*> groups;
    document->FindAll(document->GetRoot(), "fileGroup", groups);
    std::list<std::string> titles;
    for (KEELComponent* group : groups) {
      if (group == nullptr)
        continue;
      KEELComponent* title = group->FindChild("title");
      titles.push_back(title != nullptr ? title->GetValue() : "Unknown_" + std::to_string(index));
    }
    std::lock_guard<std::mutex> lock(failedListLock);
    failedConfigs.splice(failedConfigs.end(), titles);
  }
  helperUtil::incrementDoneCount();
  const std::string endId = currentThreadIdText();
  KLOG_I("Thread %i Completed Collection. Looking for a new task...", IdTextAddress(endId));
}

std::list<std::string> KEELEngine::failedConfigList() {
  std::lock_guard<std::mutex> lock(failedListLock);
  return failedConfigs;
}

ResultCode KEELEngine::writeFailedFilesToSummary(const std::string& path) {
  FileHandle file(fopen(path.c_str(), "ae"));
  if (!file) {
    KLOG_E("Could not open file \"%s\"", path.c_str());
    return KEELENGINE_ERROR_FILE_OPEN_FAILURE;
  }
  if (!failedConfigs.empty()) {
    static const std::string rule(100, '=');
    fprintf(file.get(), "\n%.*s\n", 100, rule.c_str());
    fprintf(file.get(), "KEELEngine failed to parse or use the following configuration files:\n");
    for (const std::string& name : failedConfigs)
      fprintf(file.get(), "%s\n", name.c_str());
  }
  // The test reads the opposite of its heading, and is kept so: every run
  // without a request ends with the heading and nothing under it.
  if (unprocessedIds.empty()) {
    fprintf(file.get(),
            "\n\nNo instruction found in any config for the following file ID's from request:\n");
    for (KEELComponent* entry : unprocessedIds) {
      KEELAttribute* id = entry != nullptr ? entry->FindAttribute("id") : nullptr;
      if (id == nullptr || id->GetValue() == "comments" || id->GetValue() == "summary")
        continue;
      fprintf(file.get(), "%s\n", id->GetValue().c_str());
    }
  }
  // A failed write leaves the stream's error flag set; the last of the text
  // reaches the disk only when the stream is closed.
  const bool failed = ferror(file.get()) != 0;
  if (fclose(file.release()) != 0 || failed) {
    KLOG_E("Could not write file \"%s\"", path.c_str());
    return KEELENGINE_ERROR_WRITE_FAILURE;
  }
  return 0;
}

ResultCode KEELEngine::clearLogs() {
  ReportProgress(1, "Starting up KEEL Engine...");
  if (!configMgr) {
    configMgr.reset(new KEELXmlLoader());
    loadConfigs();
  }
  if (configDocs.empty()) {
    helperUtil::setConfigCount(0);
    KLOG_E("no valid configuration XML found");
    return fail(KEELENGINE_ERROR_INTERNAL, "Internal Error: no valid configuration XML found...");
  }
  helperUtil::setConfigCount(static_cast<uint32_t>(configDocs.size()));
  if (!clearCollector) {
    clearCollector.reset(new collector(request, &unprocessedIds, bundlePath, includeLegacyLogs,
                                       includeSystemLogs, env));
  }
  for (const std::unique_ptr<XMLObject>& document : configDocs) {
    if (document)
      clearCollector->Clear(document.get());
  }
  helperUtil::reportStatus(100, "KEEL has finished... ", KEELOFFLINE_ERROR_PROCESSING);
  helperUtil::reportStatus(0, "", 0);
  return 0;
}
