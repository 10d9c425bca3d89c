// The deflate settings of every archive entry, and the compression of one
// file into a raw deflate stream exactly as minizip makes it.
//
// minizip, given an entry's data in blocks of CZip::kBlockSize bytes,
// deflates each block with Z_NO_FLUSH and ends the stream with Z_FINISH on no
// further input. CEntryDeflater makes the same calls in the same order with
// the same settings, so the stream it produces is the one minizip would have
// stored, bit for bit; the archive writer can then store it as a raw entry.
//
// CDeflateStream owns one z_stream set up with those settings.
// CEntryDeflater owns a stream and its buffers and is reused from file to
// file; one object belongs to one thread at a time.
#ifndef COMMON_ZIP_ENTRYDEFLATER_H_
#define COMMON_ZIP_ENTRYDEFLATER_H_

#include <minizip/ioapi.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// Every entry: best compression, raw deflate with the largest window, the
// default memory level and strategy.
constexpr int kZipDeflateLevel = 9;
constexpr int kZipWindowBits = -MAX_WBITS;
constexpr int kZipMemLevel = 8;
constexpr int kZipStrategy = Z_DEFAULT_STRATEGY;

// Whether an entry of `size` bytes needs zip64 headers. A header without
// them has room for sizes up to 0xFFFFFFFE, and it is written before the
// data is deflated, so the decision rests on what the data may become:
// deflate makes data that does not compress a little larger (a stored
// block's header for every block), and a file just under 4 GiB can deflate
// to more than 4 GiB. zlib's deflateBound for the settings above gives the
// most it can make of `size` bytes; `overhead` is what is stored before the
// deflated data (an encryption header). The same answer on every path, so
// that they write the same archive.
bool ZipEntryNeedsZip64(uint64_t size, uint64_t overhead);

class CEntrySource;

// A z_stream for deflating with the settings above, ended on destruction.
class CDeflateStream {
 public:
  CDeflateStream();
  ~CDeflateStream();
  CDeflateStream(const CDeflateStream&) = delete;
  CDeflateStream& operator=(const CDeflateStream&) = delete;

  // deflateInit2 the first time, deflateReset after; zlib's result.
  int start();
  z_stream* get() { return &m_stream; }

 private:
  z_stream m_stream;
  bool m_ready = false;
};

class CEntryDeflater {
 public:
  // The size of the output buffer, and so of every piece handed on but the
  // last of an entry.
  static constexpr size_t kOutputSize = 64 * 1024;

  // What went into one entry.
  struct Totals {
    uLong crc = 0;            // CRC-32 of the bytes read
    ZPOS64_T size = 0;        // number of bytes read
    int failure = Z_OK;       // a zlib failure, which spoils the entry
    bool unreadable = false;  // the file could not be read whole (logged)
    bool stopped = false;     // the sink asked to stop
  };

  // One piece of an entry's compressed output.
  struct Piece {
    const unsigned char* data = nullptr;
    size_t size = 0;
    // What zlib found the data to be (Z_TEXT or Z_BINARY); settled before
    // the first byte of output.
    int dataType = Z_BINARY;
    // The entry's final piece, which may be empty; `totals` then holds the
    // CRC and size of all the data, so that the end of an entry can be
    // handed on in one go.
    bool last = false;
    const Totals* totals = nullptr;
  };

  // Receives the pieces of an entry in order. Returns false to stop the
  // entry.
  using Sink = std::function<bool(const Piece& piece)>;

  CEntryDeflater();

  // Deflates the bytes of the opened `source`. When it can't be read whole
  // the entry stops with `unreadable` set, and nothing more is handed on.
  Totals deflateFile(CEntrySource* source, const Sink& sink);

 private:
  // Runs deflate over the input in the stream with `flush` and hands every
  // full output buffer on; with Z_FINISH also the rest.
  bool pump(int flush, Totals* totals, const Sink& sink);

  CDeflateStream m_stream;
  std::unique_ptr<unsigned char[]> m_input;
  std::unique_ptr<unsigned char[]> m_output;
};

#endif  // COMMON_ZIP_ENTRYDEFLATER_H_
