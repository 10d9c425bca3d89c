#include "Common/Zip/LocalHeader.h"

#include <cstddef>

#include "Common/Log/Log.h"
#include "Common/Zip/ArchiveFile.h"

namespace {

constexpr uint32_t kLocalSignature = 0x04034b50;
constexpr size_t kFixedSize = 30;
// Offsets in the fixed part of a local header.
constexpr size_t kCompressedSizeField = 18;
constexpr size_t kUncompressedSizeField = 22;  // follows the compressed size
constexpr size_t kNameLengthField = 26;
constexpr size_t kExtraLengthField = 28;
// The zip64 extra field minizip writes first in the local extra data: its
// id, its data size, then the uncompressed and the compressed size.
constexpr uint32_t kZip64ExtraId = 0x0001;
constexpr uint32_t kZip64ExtraDataSize = 16;
constexpr size_t kZip64ExtraSize = 4 + kZip64ExtraDataSize;
constexpr uint64_t kNoSize = 0xFFFFFFFF;

uint64_t Get(const unsigned char* in, int bytes) {
  uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i)
    value = (value << 8) | in[i];
  return value;
}

void Put(unsigned char* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    out[i] = static_cast<unsigned char>((value >> (8 * i)) & 0xFF);
}

}  // namespace

ResultCode CompleteZip64LocalHeader(CArchiveFile* file, uint64_t headerOffset,
                                    uint64_t uncompressed) {
  unsigned char header[kFixedSize];
  unsigned char extra[kZip64ExtraSize];
  bool read = file->readAt(headerOffset, header, sizeof(header));
  const uint64_t nameLength = read ? Get(header + kNameLengthField, 2) : 0;
  const uint64_t extraOffset = headerOffset + kFixedSize + nameLength;
  const uint64_t dataOffset = extraOffset + (read ? Get(header + kExtraLengthField, 2) : 0);
  read = read && Get(header, 4) == kLocalSignature && file->position() >= dataOffset &&
         Get(header + kExtraLengthField, 2) >= kZip64ExtraSize &&
         file->readAt(extraOffset, extra, sizeof(extra)) && Get(extra, 2) == kZip64ExtraId &&
         Get(extra + 2, 2) == kZip64ExtraDataSize;
  if (!read) {
    KLOG_E("The local header at %llu of the archive \"%s\" is not as it was written.",
           static_cast<unsigned long long>(headerOffset), file->temporaryPath().c_str());
    return GLOBAL_ERROR_UNEXPECTED;
  }
  // minizip leaves the position at the end of the entry's data.
  const uint64_t compressed = file->position() - dataOffset;
  Put(header + kCompressedSizeField, kNoSize, 4);
  Put(header + kUncompressedSizeField, kNoSize, 4);
  Put(extra + 4, uncompressed, 8);
  Put(extra + 12, compressed, 8);
  if (!file->writeAt(headerOffset + kCompressedSizeField, header + kCompressedSizeField, 8) ||
      !file->writeAt(extraOffset, extra, sizeof(extra)))
    return GLOBAL_ERROR_UNEXPECTED;
  return 0;
}
