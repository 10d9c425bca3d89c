// The sizes in the local header of an entry written with zip64 headers.
//
// minizip writes a zip64 local header with a zip64 extra field, but when it
// closes the entry it puts the sizes into the header's 32-bit fields where
// they fit and 0xFFFFFFFF where they don't, and leaves the zip64 field
// holding zeros. A reader then takes a compressed size of 0 for an entry
// past 4 GiB, and reports a damaged header for one that stayed smaller
// (whether an entry needs zip64 is decided before its data is deflated,
// from the most the data can become, see ZipEntryNeedsZip64). The format
// wants both sizes in the zip64 field, with 0xFFFFFFFF in the 32-bit ones,
// once the field is there; this writes them so, through the archive's own
// file.
//
// Called on the thread that writes the archive, right after the entry is
// closed.
#ifndef COMMON_ZIP_LOCALHEADER_H_
#define COMMON_ZIP_LOCALHEADER_H_

#include <cstdint>

#include "Common/Result/ResultCode.h"

class CArchiveFile;

// Completes the zip64 local header at `headerOffset` of the entry just
// closed in `file`, whose data held `uncompressed` bytes and ends where the
// next write goes. GLOBAL_ERROR_UNEXPECTED, logged, when the header is not
// one minizip writes for a zip64 entry or can't be rewritten.
ResultCode CompleteZip64LocalHeader(CArchiveFile* file, uint64_t headerOffset,
                                    uint64_t uncompressed);

#endif  // COMMON_ZIP_LOCALHEADER_H_
