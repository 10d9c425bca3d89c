// Feeds arbitrary bytes to the compiled-catalogue reader twice: from memory,
// in a heap block of exactly the input's size so that any read past the end
// is caught, and as a catalogue file that the lookup layer finds, checks and
// maps. Every key and translation of an accepted catalogue is then read as a
// C string, and keys are looked up again: the search must stay inside the
// table and can only answer a key equal to the one asked for.
#include <locale.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "Common/i18n/MoCatalog.h"
#include "Common/i18n/MoImage.h"
#include "fuzz/ScratchFolder.h"

namespace {

constexpr size_t kMaxLookups = 64;

using fuzzscratch::Check;

// The catalogue file: <root>/de/LC_MESSAGES/fuzz.mo.
std::string g_root;
std::string g_file;

void MakeFolder() {
  g_root = fuzzscratch::ScratchRoot("mo_reader_fuzz");
  fuzzscratch::MakeFolder("de");
  fuzzscratch::MakeFolder("de/LC_MESSAGES");
  g_file = g_root + "/de/LC_MESSAGES/fuzz.mo";
  fuzzscratch::RemoveAtExit(g_file);
}

void ReadFromMemory(const uint8_t* data, size_t size) {
  std::unique_ptr<char[]> exact(new char[size == 0 ? 1 : size]);
  memcpy(exact.get(), data, size);
  CMoImage image;
  if (!image.Load(exact.get(), size)) {
    Check(!image.IsLoaded());
    Check(image.keys().empty());
    return;
  }
  Check(image.count() >= 0);
  Check(image.keys().size() == static_cast<size_t>(image.count()));
  Check(image.translations().size() == image.keys().size());
  size_t lookups = 0;
  for (size_t i = 0; i < image.keys().size(); ++i) {
    const CMoImage::Entry& key = image.keys()[i];
    Check(key.text != nullptr);
    Check(strlen(key.text) <= key.length);
    const CMoImage::Entry& translation = image.translations()[i];
    if (translation.text != nullptr)
      Check(strlen(translation.text) <= translation.length);
    if (lookups++ < kMaxLookups) {
      // Sorted or not, the search must stay inside the table.
      const int32_t found = image.Find(key.text);
      Check(found >= -1 && found < image.count());
      if (found >= 0)
        Check(strcmp(image.keys()[static_cast<size_t>(found)].text, key.text) == 0);
    }
  }
  if (image.metadata() != nullptr)
    Check(strlen(image.metadata()) < size);
  Check(image.charset().size() < size);
  image.Find("");
  image.Find("Hello");
}

void ReadFromFile(const uint8_t* data, size_t size) {
  fuzzscratch::WriteWhole(g_file, data, size);
  // Binding again makes the next lookup load the new file.
  Check(intl::bindtextdomain("fuzz", g_root.c_str()) != nullptr);
  const char* result = intl::dcigettext("fuzz", "Hello", "Hellos", 1, LC_MESSAGES, "de-at");
  Check(result != nullptr);
  Check(strlen(result) < (size > 5 ? size : 6));
  intl::textdomain_charset("fuzz");
  result = intl::dcigettext("fuzz", "Hello", "Hellos", 2, LC_MESSAGES, "de");
  Check(result != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (g_root.empty())
    MakeFolder();
  ReadFromMemory(data, size);
  ReadFromFile(data, size);
  return 0;
}
