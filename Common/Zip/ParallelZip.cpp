#include "Common/Zip/ParallelZip.h"

#include <algorithm>
#include <cstring>
#include <list>

#include "Common/Log/Log.h"
#include "Common/Utility/JoinableThread.h"
#include "Common/Zip/ArchiveFile.h"
#include "Common/Zip/CZip.h"
#include "Common/Zip/EntryDeflater.h"
#include "Common/Zip/EntrySource.h"
#include "Common/Zip/LocalHeader.h"
#include "Common/Zip/ZipLog.h"

namespace {

// What minizip writes as "version made by" for ordinary entries, and the
// general purpose flags it starts from (it adds the level bits itself).
constexpr uLong kVersionMadeBy = 0;
constexpr uLong kFlagBase = 0;
// minizip marks an entry as text in its internal attributes with zlib's
// Z_TEXT value, when zlib has found the data to be text.
constexpr uLong kTextAttribute = Z_TEXT;

using Bytes = std::vector<unsigned char>;

}  // namespace

// One file on its way into the archive. The worker that took it fills in
// the facts, then queues its output; the writer reads the facts once
// `started` (or `skipped`) is set, and takes the output as it comes. Every
// field after the facts is guarded by m_lock.
struct CParallelZip::Slot {
  size_t index = 0;
  // Set by the worker before `started`; read by the writer after it.
  zip_fileinfo info;
  int zip64 = 0;

  bool skipped = false;   // the archive itself: no entry
  bool started = false;   // the facts are settled; output may follow
  bool finished = false;  // every piece is queued; crc and size are set
  uLong crc = 0;
  ZPOS64_T size = 0;
  std::deque<Bytes> pieces;
  size_t queued = 0;  // bytes of this entry counted in m_queued
};

CParallelZip::CParallelZip(zipFile zip, CArchiveFile* archive,
                           const std::vector<std::string>& files,
                           const std::vector<std::string>& names, SkipTest skip, unsigned workers,
                           const Limits& limits)
    : m_zip(zip),
      m_archive(archive),
      m_files(files),
      m_names(names),
      m_skip(std::move(skip)),
      m_workerCount(workers > 0 ? workers : 1),
      m_limits(limits) {}

CParallelZip::~CParallelZip() = default;

ResultCode CParallelZip::run() {
  // A worker the system refuses fails the archive; the ones started end
  // on the stop.
  std::list<CJoinableThread> workers;
  for (unsigned i = 0; i < m_workerCount; ++i) {
    workers.emplace_back();
    if (workers.back().start([this] { work(); }) != 0) {
      stopWith(THREAD_ERROR_CREATE_FAILED);
      break;
    }
  }

  for (size_t i = 0; i < m_files.size(); ++i) {
    Slot* slot = waitForFront();
    if (slot == nullptr)
      break;
    if (!slot->skipped) {
      const ResultCode result = writeFront(slot);
      if (result != 0) {
        stopWith(result);
        break;
      }
      ++m_written;
    }
    popFront();
  }

  ResultCode failure;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_stop = true;
    failure = m_failure;
  }
  m_workersWake.notify_all();
  for (CJoinableThread& worker : workers)
    worker.join();
  return failure;
}

void CParallelZip::work() {
  CEntryDeflater deflater;
  while (Slot* slot = claim())
    deflateInto(slot, &deflater);
}

CParallelZip::Slot* CParallelZip::claim() {
  std::unique_lock<std::mutex> lock(m_lock);
  // A worker that waits here holds no entry, so the writer never waits on
  // it. The entry next in line for the writer may always be taken.
  m_workersWake.wait(lock, [this] {
    return m_stop || m_nextIndex >= m_files.size() || m_window.empty() ||
           (m_queued < m_limits.queueBudget && m_window.size() < m_limits.maxInFlight);
  });
  if (m_stop || m_nextIndex >= m_files.size())
    return nullptr;
  std::unique_ptr<Slot> slot(new Slot());
  slot->index = m_nextIndex++;
  m_window.push_back(std::move(slot));
  return m_window.back().get();
}

void CParallelZip::deflateInto(Slot* slot, CEntryDeflater* deflater) {
  const std::string& file = m_files[slot->index];
  if (m_skip && m_skip(file)) {
    KLOG_W("Skipping %s, because it is the archive being written.", file.c_str());
    {
      std::lock_guard<std::mutex> lock(m_lock);
      slot->skipped = true;
    }
    m_writerWake.notify_one();
    return;
  }
  // The facts in the order the sequential path reads them, just before the
  // data, so that a file changing meanwhile gives what that path would.
  memset(&slot->info, 0, sizeof(slot->info));
  slot->info.external_fa = CZip::getFileAttributes(file);
  if (!CZip::getFileDate(file, &slot->info.tmz_date))
    KLOG_W("Failed to get file time attributes.");
  // A file that can't be read whole fails the archive (see EntrySource.h).
  CEntrySource source;
  if (!source.open(file)) {
    stopWith(GLOBAL_ERROR_UNEXPECTED);
    return;
  }
  slot->zip64 = ZipEntryNeedsZip64(source.size(), 0) ? 1 : 0;

  const CEntryDeflater::Totals totals = deflater->deflateFile(
      &source, [this, slot](const CEntryDeflater::Piece& piece) { return publish(slot, piece); });
  if (totals.stopped)
    return;
  if (totals.unreadable) {
    stopWith(GLOBAL_ERROR_UNEXPECTED);
  } else if (totals.failure != Z_OK) {
    KLOG_LIBRARY("deflate", totals.failure, "%s", file.c_str());
    stopWith(GLOBAL_ERROR_UNEXPECTED);
  }
}

bool CParallelZip::publish(Slot* slot, const CEntryDeflater::Piece& piece) {
  Bytes bytes(piece.data, piece.data + piece.size);
  std::unique_lock<std::mutex> lock(m_lock);
  if (!slot->started) {
    // zlib settles the data type before its first output, and minizip
    // writes it into the entry's internal attributes.
    slot->info.internal_fa = piece.dataType == Z_TEXT ? kTextAttribute : 0;
  }
  const size_t size = piece.size;
  m_workersWake.wait(lock, [this, slot, size] {
    if (m_stop || size == 0)
      return true;
    if (!m_window.empty() && m_window.front().get() == slot)
      return slot->queued < m_limits.frontLimit;
    return m_queued + size <= m_limits.queueBudget;
  });
  if (m_stop)
    return false;
  if (size > 0) {
    slot->pieces.push_back(std::move(bytes));
    slot->queued += size;
    m_queued += size;
    m_peakQueued = std::max(m_peakQueued, m_queued);
  }
  slot->started = true;
  if (piece.last) {
    // The end of the entry goes with its last piece, so that the writer
    // wakes once for a small file.
    slot->crc = piece.totals->crc;
    slot->size = piece.totals->size;
    slot->finished = true;
  }
  // Only the front entry is waited for.
  const bool front = m_window.front().get() == slot;
  lock.unlock();
  if (front)
    m_writerWake.notify_one();
  return true;
}

void CParallelZip::stopWith(ResultCode failure) {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_failure == 0)
      m_failure = failure;
    m_stop = true;
  }
  m_workersWake.notify_all();
  m_writerWake.notify_all();
}

CParallelZip::Slot* CParallelZip::waitForFront() {
  std::unique_lock<std::mutex> lock(m_lock);
  m_writerWake.wait(lock, [this] {
    return m_stop ||
           (!m_window.empty() && (m_window.front()->started || m_window.front()->skipped));
  });
  return m_stop ? nullptr : m_window.front().get();
}

ResultCode CParallelZip::writeFront(Slot* slot) {
  const std::string& name = m_names[slot->index];
  zip_fileinfo info;
  int zip64;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    info = slot->info;
    zip64 = slot->zip64;
  }
  // A raw entry: minizip stores the bytes as they come and takes the CRC
  // and size from the close; everything else it writes as for any entry.
  const uint64_t headerOffset = m_archive->position();
  const int opened = zipOpenNewFileInZip4_64(m_zip, name.c_str(), &info, nullptr, 0, nullptr, 0,
                                             nullptr, Z_DEFLATED, kZipDeflateLevel,
                                             /*raw=*/1, kZipWindowBits, kZipMemLevel, kZipStrategy,
                                             nullptr, 0, kVersionMadeBy, kFlagBase, zip64);
  if (opened != ZIP_OK) {
    KLOG_LIBRARY("zipOpenNewFileInZip4_64", opened, "%s", name.c_str());
    return GLOBAL_ERROR_UNEXPECTED;
  }
  uLong crc = 0;
  ZPOS64_T size = 0;
  for (bool finished = false; !finished;) {
    std::deque<Bytes> pieces;
    {
      std::unique_lock<std::mutex> lock(m_lock);
      m_writerWake.wait(lock,
                        [this, slot] { return m_stop || !slot->pieces.empty() || slot->finished; });
      if (m_stop)
        return m_failure != 0 ? m_failure : GLOBAL_ERROR_UNEXPECTED;
      pieces.swap(slot->pieces);
      finished = slot->finished;
      crc = slot->crc;
      size = slot->size;
    }
    size_t taken = 0;
    for (const Bytes& piece : pieces) {
      const int written =
          zipWriteInFileInZip(m_zip, piece.data(), static_cast<unsigned>(piece.size()));
      if (written < 0) {
        KLOG_LIBRARY("zipWriteInFileInZip", written, "%s", name.c_str());
        return GLOBAL_ERROR_UNEXPECTED;
      }
      taken += piece.size();
    }
    {
      std::lock_guard<std::mutex> lock(m_lock);
      slot->queued -= taken;
      m_queued -= taken;
    }
    m_workersWake.notify_all();
  }
  const int closed = zipCloseFileInZipRaw64(m_zip, size, crc);
  if (closed != ZIP_OK) {
    KLOG_LIBRARY("zipCloseFileInZipRaw64", closed, "%s", name.c_str());
    return GLOBAL_ERROR_UNEXPECTED;
  }
  if (zip64 != 0 && CompleteZip64LocalHeader(m_archive, headerOffset, size) != 0)
    return GLOBAL_ERROR_UNEXPECTED;
  return 0;
}

void CParallelZip::popFront() {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_window.pop_front();
  }
  // A new front may queue past the budget, and the window has room.
  m_workersWake.notify_all();
}
