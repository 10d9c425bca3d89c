#include "Common/Zip/EntryDeflater.h"

#include <cstring>

#include "Common/Zip/CZip.h"
#include "Common/Zip/EntrySource.h"

namespace {

// The largest size a header without zip64 can hold is one less: minizip
// takes 0xFFFFFFFF itself as the sign of a zip64 entry.
constexpr uint64_t kZip64Size = 0xFFFFFFFFull;

}  // namespace

bool ZipEntryNeedsZip64(uint64_t size, uint64_t overhead) {
  if (size >= kZip64Size)
    return true;
  // deflateBound answers for the settings of the stream it is given, and
  // only reads it, so one stream set up once serves every thread.
  static CDeflateStream settings;
  static const int ready = settings.start();
  if (ready != Z_OK)
    return true;  // no bound to go by: zip64 is never wrong
  const uint64_t bound = deflateBound(settings.get(), static_cast<uLong>(size));
  return bound + overhead >= kZip64Size;
}

CDeflateStream::CDeflateStream() {
  memset(&m_stream, 0, sizeof(m_stream));
}

CDeflateStream::~CDeflateStream() {
  if (m_ready)
    deflateEnd(&m_stream);
}

int CDeflateStream::start() {
  // A reset stream deflates exactly as a fresh one, without allocating its
  // window and tables again for every entry.
  if (m_ready)
    return deflateReset(&m_stream);
  const int code = deflateInit2(&m_stream, kZipDeflateLevel, Z_DEFLATED, kZipWindowBits,
                                kZipMemLevel, kZipStrategy);
  m_ready = code == Z_OK;
  return code;
}

CEntryDeflater::CEntryDeflater()
    : m_input(new unsigned char[CZip::kBlockSize]), m_output(new unsigned char[kOutputSize]) {}

CEntryDeflater::Totals CEntryDeflater::deflateFile(CEntrySource* source, const Sink& sink) {
  Totals totals;
  totals.crc = crc32(0L, Z_NULL, 0);
  totals.failure = m_stream.start();
  if (totals.failure != Z_OK)
    return totals;
  z_stream* stream = m_stream.get();
  stream->next_out = m_output.get();
  stream->avail_out = static_cast<uInt>(kOutputSize);

  // The blocks minizip would have been handed: whole blocks of kBlockSize
  // until the end, then what is left.
  for (;;) {
    size_t count = 0;
    if (!source->read(m_input.get(), CZip::kBlockSize, &count)) {
      totals.unreadable = true;
      return totals;
    }
    if (count > 0) {
      totals.crc = crc32(totals.crc, m_input.get(), static_cast<uInt>(count));
      totals.size += count;
      stream->next_in = m_input.get();
      stream->avail_in = static_cast<uInt>(count);
      if (!pump(Z_NO_FLUSH, &totals, sink))
        return totals;
    }
    if (count < CZip::kBlockSize)
      break;
  }
  stream->next_in = nullptr;
  stream->avail_in = 0;
  pump(Z_FINISH, &totals, sink);
  return totals;
}

bool CEntryDeflater::pump(int flush, Totals* totals, const Sink& sink) {
  // The loops of minizip's zipWriteInFileInZip (Z_NO_FLUSH, while input is
  // left) and zipCloseFileInZip (Z_FINISH, until the end of the stream): a
  // full output buffer is handed on before the next call.
  z_stream* stream = m_stream.get();
  for (;;) {
    if (flush != Z_FINISH && stream->avail_in == 0)
      return true;
    if (stream->avail_out == 0) {
      Piece piece;
      piece.data = m_output.get();
      piece.size = kOutputSize;
      piece.dataType = stream->data_type;
      if (!sink(piece)) {
        totals->stopped = true;
        return false;
      }
      stream->next_out = m_output.get();
      stream->avail_out = static_cast<uInt>(kOutputSize);
    }
    const int code = deflate(stream, flush);
    if (code == Z_STREAM_END)
      break;
    if (code != Z_OK) {
      totals->failure = code;
      return false;
    }
  }
  Piece piece;
  piece.data = m_output.get();
  piece.size = kOutputSize - stream->avail_out;
  piece.dataType = stream->data_type;
  piece.last = true;
  piece.totals = totals;
  if (!sink(piece)) {
    totals->stopped = true;
    return false;
  }
  return true;
}
