// CParallelZip: fills an open minizip archive with one entry per file,
// deflating on a pool of worker threads while the calling thread writes the
// entries in list order.
//
// Entries are independent deflate streams, so workers take files in list
// order, each deflating one file at a time with CEntryDeflater, while the
// calling thread (the writer) stores each stream as a raw entry through
// minizip as soon as it is next in order. The raw entry carries what the
// sequential path would have written: the same name, date, zip64 decision,
// level flags, internal attribute (text or binary, as zlib found it), CRC,
// sizes and deflate bytes; the archive is the same byte for byte.
//
// Memory is bounded whatever the file sizes (see Limits). Compressed output
// waits in memory only up to the queue budget over all entries; beyond that
// a worker stops until the writer has taken enough. The entry that the
// writer is writing may always queue up to the front limit of its own, so it
// never waits on the budget that later entries hold: the writer only ever
// waits on that entry's worker, and that worker only on the writer taking
// its output, so neither waits on the other. A worker waiting to take a new
// file holds none. At most maxInFlight entries are taken ahead of the
// writer. In all, the queue never holds more than the budget plus the front
// limit plus one piece (CEntryDeflater::kOutputSize).
//
// A file that can't be opened or read whole, or a failure of minizip (a
// write, an entry open or close) or of zlib, stops the workers and is
// returned, as on the sequential path; the archive is then incomplete and
// the caller discards it.
//
// Ownership: the object borrows the archive (minizip's handle and the file
// it writes through) and the lists for the length of run(); it owns its
// worker threads, which run() starts and joins. Only the thread that calls
// run() touches the archive.
#ifndef COMMON_ZIP_PARALLELZIP_H_
#define COMMON_ZIP_PARALLELZIP_H_

#include <minizip/zip.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"
#include "Common/Zip/EntryDeflater.h"

class CArchiveFile;

// How much may wait between the workers and the writer.
struct ParallelZipLimits {
  // Compressed bytes that may wait in memory over all entries.
  size_t queueBudget = 16 * 1024 * 1024;
  // Compressed bytes the entry being written may queue whatever the
  // budget.
  size_t frontLimit = 1024 * 1024;
  // Entries taken but not yet written, at most.
  size_t maxInFlight = 4096;
};

class CParallelZip {
 public:
  using Limits = ParallelZipLimits;

  // Says whether a listed file is the archive itself (or the file it will
  // replace), which is left out with a warning. Called on worker threads.
  using SkipTest = std::function<bool(const std::string& path)>;

  // Writes `files[i]` as entry `names[i]` into `zip`, which writes through
  // `archive`, with `workers` worker threads (at least one).
  CParallelZip(zipFile zip, CArchiveFile* archive, const std::vector<std::string>& files,
               const std::vector<std::string>& names, SkipTest skip, unsigned workers,
               const Limits& limits = Limits());
  ~CParallelZip();
  CParallelZip(const CParallelZip&) = delete;
  CParallelZip& operator=(const CParallelZip&) = delete;

  // Writes every entry; 0, or GLOBAL_ERROR_UNEXPECTED (logged) when a file
  // could not be read whole or minizip or zlib failed. Call once.
  ResultCode run();

  // The most compressed bytes that waited at once during run().
  size_t peakQueued() const { return m_peakQueued; }

  // The number of entries run() wrote.
  size_t entriesWritten() const { return m_written; }

 private:
  struct Slot;

  void work();
  // Takes the next file for a worker; null when there is none or the run
  // stops.
  Slot* claim();
  void deflateInto(Slot* slot, CEntryDeflater* deflater);
  // Queues a piece of output of `slot`, and with the last one its end;
  // false when the run stops.
  bool publish(Slot* slot, const CEntryDeflater::Piece& piece);
  void stopWith(ResultCode failure);

  // The writer's side.
  Slot* waitForFront();
  ResultCode writeFront(Slot* slot);
  void popFront();

  zipFile m_zip;
  CArchiveFile* m_archive;
  const std::vector<std::string>& m_files;
  const std::vector<std::string>& m_names;
  SkipTest m_skip;
  unsigned m_workerCount;
  Limits m_limits;

  std::mutex m_lock;
  std::condition_variable m_workersWake;       // a claim or a piece of output may go ahead
  std::condition_variable m_writerWake;        // the front entry has news
  std::deque<std::unique_ptr<Slot>> m_window;  // taken, not yet written; front is the writer's
  size_t m_nextIndex = 0;                      // the next file to take
  size_t m_queued = 0;                         // compressed bytes waiting over all entries
  size_t m_peakQueued = 0;
  size_t m_written = 0;  // the writer's count; read after run()
  bool m_stop = false;
  ResultCode m_failure = 0;
};

#endif  // COMMON_ZIP_PARALLELZIP_H_
