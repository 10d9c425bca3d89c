// CMoImage: the reading of one compiled message catalogue (".mo") that lies
// in memory, usually a read-only mapping of the file.
//
// The image keeps pointers into the bytes it was given, which must stay
// valid and unchanged while the image is used; it owns only its two tables
// and the charset text. Every offset and length in the file is checked
// against the size given, and a string is accepted only when its terminating
// zero byte lies inside too, so no later use of the image reads past the
// bytes given. The byte order is the file's own: a magic of 0x950412DE in
// the machine's order, or the same with its bytes swapped.
//
// Not thread-safe: the owner serialises all use.
#ifndef COMMON_I18N_MOIMAGE_H_
#define COMMON_I18N_MOIMAGE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class CMoImage {
 public:
  static constexpr uint32_t kMagic = 0x950412DEu;
  static constexpr uint32_t kSwappedMagic = 0xDE120495u;
  // magic, revision, count, key table offset, translation table offset
  static constexpr size_t kHeaderSize = 20;

  // One string of the catalogue. `text` is null when the string is absent:
  // a translation of length zero counts as absent.
  struct Entry {
    uint32_t length = 0;
    const char* text = nullptr;
  };

  // Whether `head` (at least 8 bytes: magic and revision) starts a
  // catalogue that can be read: a known magic and a revision of 0.
  static bool AcceptsHeader(const unsigned char* head);

  // Reads the catalogue in data[0, size). On any failure the image is left
  // empty and false is returned.
  bool Load(const char* data, size_t size);
  // Forgets the tables and the charset; IsLoaded() becomes false.
  void Clear();
  // Marks the image unloaded but keeps its tables, so that the bytes they
  // point into may only be released by the next Load or Clear.
  void MarkUnloaded() { m_magic = 0; }

  bool IsLoaded() const { return m_magic != 0; }
  uint32_t magic() const { return m_magic; }
  uint32_t revision() const { return m_revision; }
  int32_t count() const { return m_count; }
  const std::vector<Entry>& keys() const { return m_keys; }
  const std::vector<Entry>& translations() const { return m_translations; }
  // The translation of the empty key (the catalogue's header), or null.
  const char* metadata() const { return m_metadata; }
  // The text after "charset=" in the metadata up to the line end, or "".
  const std::string& charset() const { return m_charset; }

  // Binary search of the keys with strcmp: the index of `key`, or -1.
  int32_t Find(const char* key) const;

 private:
  bool ReadTable(const char* data, size_t size, uint32_t offset, bool swapped,
                 std::vector<Entry>* table, bool emptyIsAbsent) const;
  void FindMetadata();

  uint32_t m_magic = 0;
  uint32_t m_revision = 0;
  int32_t m_count = 0;
  std::vector<Entry> m_keys;
  std::vector<Entry> m_translations;
  const char* m_metadata = nullptr;
  std::string m_charset;
};

#endif  // COMMON_I18N_MOIMAGE_H_
