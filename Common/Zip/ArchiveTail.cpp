#include "Common/Zip/ArchiveTail.h"

#include <string>

#include "Common/Log/Log.h"
#include "Common/Zip/ArchiveFile.h"

namespace {

constexpr uint32_t kEndSignature = 0x06054b50;
constexpr uint32_t kZip64EndSignature = 0x06064b50;
constexpr uint32_t kZip64LocatorSignature = 0x07064b50;
// Where the size of the central directory lies in the classic end record.
constexpr size_t kEndSizeField = 12;
constexpr size_t kEndCommentLengthField = 20;
// Version 4.5 of the format brought zip64; minizip names it for both
// "made by" and "needed" in its zip64 end record, and so does this one.
constexpr uint16_t kZip64Version = 45;
constexpr uint64_t kMaxCount = 0xFFFF;
constexpr uint64_t kMaxSize = 0xFFFFFFFF;

void Put(std::string* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    out->push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

uint64_t Get(const unsigned char* in, int bytes) {
  uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i)
    value = (value << 8) | in[i];
  return value;
}

// The zip64 end record, its locator and the classic end record for a
// central directory of `size` bytes at `offset` holding `entries`.
std::string Zip64Tail(uint64_t offset, uint64_t size, uint64_t entries) {
  std::string tail;
  Put(&tail, kZip64EndSignature, 4);
  Put(&tail, kZip64EndRecordSize - 12, 8);  // what follows this field
  Put(&tail, kZip64Version, 2);             // made by
  Put(&tail, kZip64Version, 2);             // needed to extract
  Put(&tail, 0, 4);                         // this disk
  Put(&tail, 0, 4);                         // the disk where the central directory starts
  Put(&tail, entries, 8);                   // entries on this disk
  Put(&tail, entries, 8);                   // entries in all
  Put(&tail, size, 8);
  Put(&tail, offset, 8);

  Put(&tail, kZip64LocatorSignature, 4);
  Put(&tail, 0, 4);              // the disk of the zip64 end record
  Put(&tail, offset + size, 8);  // where it starts
  Put(&tail, 1, 4);              // disks in all

  Put(&tail, kEndSignature, 4);
  Put(&tail, 0, 2);  // this disk
  Put(&tail, 0, 2);  // the disk where the central directory starts
  Put(&tail, entries < kMaxCount ? entries : kMaxCount, 2);
  Put(&tail, entries < kMaxCount ? entries : kMaxCount, 2);
  Put(&tail, size < kMaxSize ? size : kMaxSize, 4);
  Put(&tail, offset < kMaxSize ? offset : kMaxSize, 4);
  Put(&tail, 0, 2);  // no comment
  return tail;
}

// The size of the central directory that starts at `offset` in an archive
// of `end` bytes as minizip closed it, or false. minizip ends it with the
// classic record alone, or with its own zip64 records before that; the
// classic record's size field (the size modulo 2^32) tells which.
bool CentralDirectorySize(CArchiveFile* file, uint64_t offset, uint64_t end, uint64_t* size) {
  if (end < offset + kEndRecordSize)
    return false;
  unsigned char record[kEndRecordSize];
  if (!file->readAt(end - kEndRecordSize, record, sizeof(record)))
    return false;
  if (Get(record, 4) != kEndSignature || Get(record + kEndCommentLengthField, 2) != 0)
    return false;
  const uint64_t sizeField = Get(record + kEndSizeField, 4);
  const uint64_t plain = end - kEndRecordSize - offset;
  if ((plain & kMaxSize) == sizeField) {
    *size = plain;
    return true;
  }
  const uint64_t zip64Records = kZip64EndRecordSize + kZip64LocatorSize;
  if (plain >= zip64Records && ((plain - zip64Records) & kMaxSize) == sizeField) {
    *size = plain - zip64Records;
    return true;
  }
  return false;
}

}  // namespace

ResultCode CompleteArchiveTail(CArchiveFile* file, uint64_t centralOffset, uint64_t entries) {
  const uint64_t end = file->position();
  uint64_t size = 0;
  if (!CentralDirectorySize(file, centralOffset, end, &size)) {
    KLOG_E("The end of the archive \"%s\" is not as it was written.",
           file->temporaryPath().c_str());
    return GLOBAL_ERROR_UNEXPECTED;
  }
  if (entries < kMaxCount && centralOffset < kMaxSize && size < kMaxSize)
    return 0;
  const std::string tail = Zip64Tail(centralOffset, size, entries);
  if (!file->replaceTail(centralOffset + size, tail.data(), tail.size()))
    return GLOBAL_ERROR_UNEXPECTED;
  return 0;
}
