// collector: carries one config document from the selection of its
// instructions, through the actions, to its section of summary.txt.
//
// A bundle run makes one collector per config, each used by one pool job; a
// clear run makes one for all configs, on the main thread. A collector owns
// its summary document and its reader position; it shares with other jobs
// only the request (read only), the list of unprocessed request entries, the
// working folder on disk and summary.txt (written under the summary lock).
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_COLLECTOR_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_COLLECTOR_H_

#include <cstdio>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"
#include "tools/KEEL/KEELEngine/implementations/KEELTypes.h"

class Env;
class KEELComponent;
class XMLObject;

class collector {
 public:
  // `request` is read only and not owned; a document without a root asks
  // for the default selection, and only a clear run passes null.
  // `unprocessedIds` is the engine's list of request entries not yet served.
  // `env` gives the host's facts and starts the programs; not owned, and
  // null means Env::Default().
  collector(XMLObject* request, std::list<KEELComponent*>* unprocessedIds,
            const std::string& bundlePath, bool includeLegacyLogs, bool includeSystemLogs,
            Env* env = nullptr);
  ~collector();

  collector(const collector&) = delete;
  collector& operator=(const collector&) = delete;

  // Runs the selected instructions of `config` into `tempFolder` and appends
  // the config's section to summary.txt. Failed instructions do not fail it.
  ResultCode Collect(std::string& tempFolder, XMLObject* config);
  // Runs the clearing variant of every default instruction of `config`.
  ResultCode Clear(XMLObject* config);

  // The root's direct children named "fileGroup" / "file".
  static std::vector<KEELComponent*> getFileGroupComponents(XMLObject& document);
  static std::vector<KEELComponent*> getFileComponents(XMLObject& document);
  // A fileGroup's direct children named "file".
  static std::vector<KEELComponent*> getFileGroupFileComponents(KEELComponent* fileGroup);
  // Stable sort by the bytes of the `id` attribute; one without an id keeps
  // its place.
  static void sortById(std::vector<KEELComponent*>& files);
  // The child `default` holds exactly "true".
  static bool isDefault(KEELComponent* file);

  // The folder of a fileGroup or file below `parentFolder`, made one level
  // at a time; the parent when it has no directoryName or none can be made.
  std::string getDirectory(KEELComponent* component, const std::string& parentFolder);
  void moveReaderToKEEL(KEELComponent* file);
  // Places the reader on the first `os` of the instruction that fits this host.
  ResultCode moveReaderToCorrectOS(KEELComponent* file);
  void removeFromUnprocessedList(KEELComponent* component);
  ResultCode writeComments(KEELComponent* commentsComponent, const std::string& tempFolder);

  // The summary document and its text.
  ResultCode initializeSummary();
  ResultCode fillInSummaryMainInfo();
  ResultCode writeSummary(const std::string& tempFolder, XMLObject* config);
  // Appends this config's part to summary.txt. KEELENGINE_ERROR_WRITE_FAILURE
  // when any of it could not be written (then the summary is incomplete).
  ResultCode printSummary(XMLObject* config);

  // A text being cut into column pieces: the rest begins at `start`.
  struct ColumnText {
    std::string text;
    size_t start = 0;
    bool done() const { return start >= text.size(); }
  };
  // Cuts the next piece of at most `width` characters off the front of the
  // text, breaking at white space where it can.
  static std::string nextPiece(ColumnText& column, size_t width);
  static std::string nextPiece(std::string& text, size_t width);

  // The process-wide lock held for the whole of printSummary.
  static std::mutex& summaryLock();

  // summary.txt belongs to the run, not to what it collects. The engine
  // creates it at `path` (exclusively, never through a link, 0600) before
  // anything is collected, and every section is then written through that
  // file's descriptor, whatever a copy or a program does to the name. 0, or
  // KEELENGINE_ERROR_FILE_OPEN_FAILURE. Main thread, before the pool starts.
  static ResultCode createSummaryFile(const std::string& path);
  // Puts the run's summary back under its name if a collected file or
  // folder took it: what took the name is removed (it was left out of the
  // bundle, see printSummary) and the summary's text is written to the name
  // afresh. Main thread, after the pool ended; also called by printSummary.
  static void reclaimSummaryName();
  // Forgets the run's summary file (closed; the file stays).
  static void closeSummaryFile();

  XMLObject* summaryDocument() const { return m_pXMLSummary.get(); }
  const TruncAttrsList& collectedFiles() const { return m_collectedFiles; }
  const std::string& summaryPath() const { return m_summaryPath; }
  KEELComponent* reader() const { return m_reader; }

 private:
  void selectByDefault(std::string& tempFolder, XMLObject& config, ActionSettings& settings);
  void selectByRequest(std::string& tempFolder, XMLObject& config, ActionSettings& settings);
  void runCollection(const ActionSettings& settings);
  FILE* openSummary();
  void omitWhatTookTheSummaryName();
  void writeHead(FILE* file);
  void writeSection(FILE* file, XMLObject& config);
  void writeComponentRows(FILE* file, KEELComponent* parent, const char* lastAttribute,
                          int lastWidth);

  XMLObject* m_pXMLRequest;
  std::unique_ptr<XMLObject> m_pXMLSummary;
  std::list<KEELComponent*>* m_unprocessedIds;
  TruncAttrsList m_collectedFiles;
  bool m_constructed = true;  // set at construction; read by nothing
  std::string m_bundlePath;
  std::string m_summaryPath;
  KEELComponent* m_reader = nullptr;
  bool m_includeLegacyLogs;
  bool m_includeSystemLogs;
  bool m_isAdmin;
  Env* m_pEnv;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_COLLECTOR_H_
