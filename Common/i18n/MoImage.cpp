#include "Common/i18n/MoImage.h"

#include <climits>
#include <cstring>

namespace {

constexpr size_t kEntrySize = 8;  // length, offset

uint32_t ReadWord(const unsigned char* at, bool swapped) {
  uint32_t word;
  memcpy(&word, at, sizeof(word));  // the file gives no alignment
  return swapped ? __builtin_bswap32(word) : word;
}

// Whether [offset, offset + length) lies inside [0, size), in 64 bits so
// that no sum can wrap.
bool Inside(uint64_t offset, uint64_t length, uint64_t size) {
  return offset <= size && length <= size - offset;
}

}  // namespace

bool CMoImage::AcceptsHeader(const unsigned char* head) {
  uint32_t magic;
  memcpy(&magic, head, sizeof(magic));
  if (magic != kMagic && magic != kSwappedMagic)
    return false;
  return ReadWord(head + 4, magic == kSwappedMagic) == 0;
}

bool CMoImage::Load(const char* data, size_t size) {
  Clear();
  if (data == nullptr || size < kHeaderSize)
    return false;
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  if (!AcceptsHeader(bytes))
    return false;
  uint32_t magic;
  memcpy(&magic, bytes, sizeof(magic));
  const bool swapped = magic == kSwappedMagic;
  const uint32_t count = ReadWord(bytes + 8, swapped);
  const uint32_t keyOffset = ReadWord(bytes + 12, swapped);
  const uint32_t translationOffset = ReadWord(bytes + 16, swapped);
  if (count > static_cast<uint32_t>(INT32_MAX))
    return false;
  const uint64_t tableSize = static_cast<uint64_t>(count) * kEntrySize;
  if (!Inside(keyOffset, tableSize, size) || !Inside(translationOffset, tableSize, size))
    return false;
  m_count = static_cast<int32_t>(count);
  if (!ReadTable(data, size, keyOffset, swapped, &m_keys, false) ||
      !ReadTable(data, size, translationOffset, swapped, &m_translations, true)) {
    Clear();
    return false;
  }
  m_magic = magic;
  m_revision = 0;
  FindMetadata();
  return true;
}

bool CMoImage::ReadTable(const char* data, size_t size, uint32_t offset, bool swapped,
                         std::vector<Entry>* table, bool emptyIsAbsent) const {
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  table->assign(static_cast<size_t>(m_count), Entry());
  for (int32_t i = 0; i < m_count; ++i) {
    const unsigned char* at = bytes + offset + static_cast<size_t>(i) * kEntrySize;
    const uint32_t length = ReadWord(at, swapped);
    const uint32_t stringOffset = ReadWord(at + 4, swapped);
    // The string and its terminator must lie inside, and the terminator
    // must be a zero byte, so that strcmp and the C-string readers of a
    // translation stop inside the bytes given.
    if (!Inside(stringOffset, static_cast<uint64_t>(length) + 1, size))
      return false;
    if (data[static_cast<size_t>(stringOffset) + length] != '\0')
      return false;
    Entry& entry = (*table)[static_cast<size_t>(i)];
    entry.length = length;
    entry.text = (emptyIsAbsent && length == 0) ? nullptr : data + stringOffset;
  }
  return true;
}

void CMoImage::FindMetadata() {
  // The header is the translation of the empty key, which sorts first: halve
  // the index from the end of the table until an empty key turns up.
  size_t index = static_cast<size_t>(m_count);
  for (;;) {
    if (index < m_keys.size() && m_keys[index].length == 0) {
      m_metadata = m_translations[index].text;
      break;
    }
    const size_t next = index / 2;
    if (next == index)
      return;
    index = next;
  }
  if (m_metadata == nullptr)
    return;
  const char* charset = strstr(m_metadata, "charset=");
  if (charset == nullptr)
    return;
  m_charset = charset + strlen("charset=");
  const size_t lineEnd = m_charset.find('\n');
  if (lineEnd != std::string::npos)
    m_charset.erase(lineEnd);
}

void CMoImage::Clear() {
  m_magic = 0;
  m_revision = 0;
  m_count = 0;
  m_keys.clear();
  m_keys.shrink_to_fit();
  m_translations.clear();
  m_translations.shrink_to_fit();
  m_metadata = nullptr;
  m_charset.clear();
}

int32_t CMoImage::Find(const char* key) const {
  if (!IsLoaded() || key == nullptr)
    return -1;
  size_t lower = 0;
  size_t upper = m_keys.size();
  while (lower < upper) {
    const size_t middle = lower + (upper - lower) / 2;
    const int order = strcmp(key, m_keys[middle].text);
    if (order == 0)
      return static_cast<int32_t>(middle);
    if (order < 0)
      upper = middle;
    else
      lower = middle + 1;
  }
  return -1;
}
