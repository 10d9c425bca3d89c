// The local header of an entry written with zip64 headers whose sizes
// turned out to fit in 32 bits.
//
// Whether an entry needs zip64 is decided before its data is deflated,
// from the most the data can become (ZipEntryNeedsZip64), so an entry may
// get a zip64 local header and still end up smaller than 4 GiB. minizip
// then writes the sizes into the header's 32-bit fields and leaves the
// zip64 extra field of the header holding zeros, which some readers report
// as a damaged header. The format wants the sizes in the zip64 field, with
// 0xFFFFFFFF in the 32-bit ones, once the field is there; this writes them
// so, through the archive's own file.
//
// Called on the thread that writes the archive, right after the entry is
// closed.
#ifndef COMMON_ZIP_LOCALHEADER_H_
#define COMMON_ZIP_LOCALHEADER_H_

#include <cstdint>

#include "Common/Result/ResultCode.h"

class CArchiveFile;

// Completes the zip64 local header at `headerOffset` of the entry just
// closed in `file`; an entry whose sizes minizip already wrote into the
// zip64 field is left as it is. GLOBAL_ERROR_UNEXPECTED, logged, when the
// header is not one minizip writes for a zip64 entry or can't be rewritten.
ResultCode CompleteZip64LocalHeader(CArchiveFile* file, uint64_t headerOffset);

#endif  // COMMON_ZIP_LOCALHEADER_H_
