// The end records of an archive that outgrows the classic zip format.
//
// The classic end-of-central-directory record holds the number of entries
// in 16 bits and the size and offset of the central directory in 32 bits.
// Past those limits a reader needs a zip64 end-of-central-directory record
// and its locator before the classic record, which then holds 0xFFFF or
// 0xFFFFFFFF in each field that did not fit. The minizip the tool is built
// with writes them only when the central directory starts at 4 GiB or
// later: an archive of 65,535 entries or more gets a classic record with a
// count of 0xFFFF and nothing that gives the real count, which most readers
// refuse. minizip offers no way to write the records itself, but it writes
// the whole archive through CArchiveFile's functions, so once zipClose has
// written its tail, the central directory's offset and size are known here
// and the tail can be written again as the format asks. An archive within
// the limits keeps minizip's tail unchanged, byte for byte.
//
// Called on the thread that writes the archive, after zipClose.
#ifndef COMMON_ZIP_ARCHIVETAIL_H_
#define COMMON_ZIP_ARCHIVETAIL_H_

#include <cstdint>

#include "Common/Result/ResultCode.h"

class CArchiveFile;

// The size of the classic end record without a comment, of the zip64 end
// record and of its locator.
constexpr uint64_t kEndRecordSize = 22;
constexpr uint64_t kZip64EndRecordSize = 56;
constexpr uint64_t kZip64LocatorSize = 20;

// Rewrites the tail of the archive minizip has just closed in `file`, whose
// central directory starts at `centralOffset` and holds `entries` entries,
// with zip64 end records when a count, size or offset needs them.
// GLOBAL_ERROR_UNEXPECTED, logged, when the tail is not the one minizip
// writes or can't be read or written.
ResultCode CompleteArchiveTail(CArchiveFile* file, uint64_t centralOffset, uint64_t entries);

#endif  // COMMON_ZIP_ARCHIVETAIL_H_
