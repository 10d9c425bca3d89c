// Helpers for the catalogue tests: compiled catalogues made with msgfmt from
// message text, and byte-level changes to them.
//
// Test code only; included by the *_test.cpp files of this folder.
#ifndef COMMON_I18N_CATALOGTESTFILES_H_
#define COMMON_I18N_CATALOGTESTFILES_H_

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace catalogtest {

typedef std::vector<std::pair<std::string, std::string>> Messages;

// The message file text: a header naming `charset` (none when `charset` is
// empty and `withHeader` is false), then one entry per message.
inline std::string PoText(const Messages& messages, const std::string& charset = "utf-8",
                          bool withHeader = true) {
  std::string text;
  if (withHeader) {
    text += "msgid \"\"\nmsgstr \"\"\n\"Project-Id-Version: keel-test\\n\"\n";
    if (!charset.empty())
      text += "\"Content-Type: text/plain; charset=" + charset + "\\n\"\n";
    text += "\n";
  }
  for (const auto& message : messages)
    text += "msgid \"" + message.first + "\"\nmsgstr \"" + message.second + "\"\n\n";
  return text;
}

// Compiles `poText` into the catalogue `moPath` (folders are made), in the
// machine's byte order or, with `bigEndian`, in big-endian order.
inline bool Compile(const std::string& poText, const std::string& moPath, bool bigEndian = false) {
  const std::string poPath = moPath + ".po";
  if (!keeltest::WriteFile(poPath, poText))
    return false;
  std::vector<std::string> argv = {"msgfmt"};
  if (bigEndian)
    argv.push_back("--endianness=big");
  argv.insert(argv.end(), {"-o", moPath, poPath});
  const keeltest::CommandResult result = keeltest::Run(argv);
  unlink(poPath.c_str());
  return result.status == 0;
}

inline bool Compile(const Messages& messages, const std::string& moPath, bool bigEndian = false) {
  return Compile(PoText(messages), moPath, bigEndian);
}

// Whether the bytes are in the machine's order (magic 0x950412DE read
// natively).
inline bool IsNative(const std::string& bytes) {
  uint32_t magic = 0;
  memcpy(&magic, bytes.data(), sizeof(magic));
  return magic == 0x950412DEu;
}

inline uint32_t GetWord(const std::string& bytes, size_t offset) {
  uint32_t word = 0;
  memcpy(&word, bytes.data() + offset, sizeof(word));
  return IsNative(bytes) ? word : __builtin_bswap32(word);
}

inline void PutWord(std::string& bytes, size_t offset, uint32_t value) {
  const uint32_t word = IsNative(bytes) ? value : __builtin_bswap32(value);
  memcpy(&bytes[offset], &word, sizeof(word));
}

// Offsets of the header fields.
constexpr size_t kRevision = 4;
constexpr size_t kCount = 8;
constexpr size_t kKeyTable = 12;
constexpr size_t kTranslationTable = 16;

// Offset of the length (and, 4 bytes on, the offset) of entry `index` of the
// table whose offset is stored at `tableField`.
inline size_t EntryAt(const std::string& bytes, size_t tableField, uint32_t index) {
  return GetWord(bytes, tableField) + static_cast<size_t>(index) * 8;
}

}  // namespace catalogtest

#endif  // COMMON_I18N_CATALOGTESTFILES_H_
