#include "Common/i18n/MoImage.h"

#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Common/i18n/CatalogTestFiles.h"
#include "tests/support/TestSupport.h"

namespace {

using catalogtest::Compile;
using catalogtest::EntryAt;
using catalogtest::GetWord;
using catalogtest::PutWord;
using keeltest::TempDir;

// The catalogue's bytes in a heap block of exactly their size, so that the
// address sanitizer sees any read past the end.
class ExactBytes {
 public:
  explicit ExactBytes(const std::string& bytes)
      : m_size(bytes.size()), m_data(new char[bytes.size() == 0 ? 1 : bytes.size()]) {
    memcpy(m_data.get(), bytes.data(), bytes.size());
  }
  const char* data() const { return m_data.get(); }
  size_t size() const { return m_size; }

 private:
  size_t m_size;
  std::unique_ptr<char[]> m_data;
};

class MoImageTest : public ::testing::Test {
 protected:
  // A catalogue of three keys besides the header: "Hello", "Hello world",
  // "Zebra".
  std::string Make(bool bigEndian = false, const std::string& charset = "utf-8") {
    const std::string path = m_dir.Sub("c.mo");
    EXPECT_TRUE(Compile(
        catalogtest::PoText(
            {{"Hello", "Hallo"}, {"Hello world", "Hallo Welt"}, {"Zebra", "Zebra!"}}, charset),
        path, bigEndian));
    return keeltest::ReadFile(path);
  }
  bool Load(const std::string& bytes) {
    m_bytes = std::make_unique<ExactBytes>(bytes);
    return m_image.Load(m_bytes->data(), m_bytes->size());
  }
  std::string Translate(const char* key) {
    const int32_t index = m_image.Find(key);
    if (index < 0)
      return "<none>";
    const char* text = m_image.translations()[static_cast<size_t>(index)].text;
    return text != nullptr ? text : "<absent>";
  }

  TempDir m_dir;
  std::unique_ptr<ExactBytes> m_bytes;
  CMoImage m_image;
};

TEST_F(MoImageTest, NativeCatalogueIsRead) {
  ASSERT_TRUE(Load(Make()));
  EXPECT_TRUE(m_image.IsLoaded());
  EXPECT_EQ(m_image.magic(), CMoImage::kMagic);
  EXPECT_EQ(m_image.revision(), 0u);
  EXPECT_EQ(m_image.count(), 4);
  EXPECT_EQ(Translate("Hello"), "Hallo");
  EXPECT_EQ(Translate("Hello world"), "Hallo Welt");
  EXPECT_EQ(Translate("Zebra"), "Zebra!");
  EXPECT_EQ(Translate("Hell"), "<none>");
  EXPECT_EQ(Translate("Hello worlds"), "<none>");
  EXPECT_EQ(Translate("zebra"), "<none>");
  EXPECT_EQ(m_image.charset(), "utf-8");
  ASSERT_NE(m_image.metadata(), nullptr);
  EXPECT_NE(strstr(m_image.metadata(), "Project-Id-Version: keel-test\n"), nullptr);
}

TEST_F(MoImageTest, SwappedCatalogueReadsTheSameAsNative) {
  const std::string swapped = Make(true);
  uint32_t magic;
  memcpy(&magic, swapped.data(), sizeof(magic));
  ASSERT_EQ(magic, CMoImage::kSwappedMagic);
  ASSERT_TRUE(Load(swapped));
  EXPECT_EQ(m_image.magic(), CMoImage::kSwappedMagic);
  EXPECT_EQ(m_image.count(), 4);
  EXPECT_EQ(Translate("Hello"), "Hallo");
  EXPECT_EQ(Translate("Hello world"), "Hallo Welt");
  EXPECT_EQ(Translate("Zebra"), "Zebra!");
  EXPECT_EQ(m_image.charset(), "utf-8");
}

TEST_F(MoImageTest, CharsetIsTakenAsWritten) {
  ASSERT_TRUE(Load(Make(false, "UTF-8")));
  EXPECT_EQ(m_image.charset(), "UTF-8");
}

TEST_F(MoImageTest, NoHeaderEntryMeansNoMetadata) {
  const std::string path = m_dir.Sub("n.mo");
  ASSERT_TRUE(Compile(catalogtest::PoText({{"a", "b"}}, "", false), path));
  ASSERT_TRUE(Load(keeltest::ReadFile(path)));
  EXPECT_EQ(m_image.metadata(), nullptr);
  EXPECT_EQ(m_image.charset(), "");
  EXPECT_EQ(Translate("a"), "b");
}

TEST_F(MoImageTest, HeaderWithoutCharsetGivesEmptyCharset) {
  const std::string path = m_dir.Sub("h.mo");
  ASSERT_TRUE(Compile(catalogtest::PoText({{"a", "b"}}, ""), path));
  ASSERT_TRUE(Load(keeltest::ReadFile(path)));
  EXPECT_NE(m_image.metadata(), nullptr);
  EXPECT_EQ(m_image.charset(), "");
}

TEST_F(MoImageTest, PluralKeyIsFoundByItsSingular) {
  const std::string path = m_dir.Sub("p.mo");
  ASSERT_TRUE(Compile(std::string("msgid \"One file\"\nmsgid_plural \"%d files\"\n"
                                  "msgstr[0] \"Eine Datei\"\nmsgstr[1] \"%d Dateien\"\n"),
                      path));
  ASSERT_TRUE(Load(keeltest::ReadFile(path)));
  EXPECT_EQ(Translate("One file"), "Eine Datei");
}

TEST_F(MoImageTest, RevisionOneIsRefused) {
  std::string bytes = Make();
  PutWord(bytes, catalogtest::kRevision, 1);
  EXPECT_FALSE(Load(bytes));
  EXPECT_FALSE(m_image.IsLoaded());
  EXPECT_EQ(m_image.Find("Hello"), -1);
}

TEST_F(MoImageTest, UnknownMagicIsRefused) {
  std::string bytes = Make();
  bytes[0] = 'X';
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, TooShortForTheHeaderIsRefused) {
  const std::string bytes = Make();
  EXPECT_FALSE(Load(bytes.substr(0, CMoImage::kHeaderSize - 1)));
  EXPECT_FALSE(Load(""));
  EXPECT_FALSE(m_image.Load(nullptr, 100));
}

TEST_F(MoImageTest, KeyTablePastTheEndIsRefused) {
  std::string bytes = Make();
  PutWord(bytes, catalogtest::kKeyTable, static_cast<uint32_t>(bytes.size() - 8));
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, TranslationTablePastTheEndIsRefused) {
  std::string bytes = Make();
  PutWord(bytes, catalogtest::kTranslationTable, static_cast<uint32_t>(bytes.size() - 31));
  EXPECT_FALSE(Load(bytes));
  PutWord(bytes, catalogtest::kTranslationTable, 0xFFFFFFF0u);
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, CountBeyondTheFileIsRefused) {
  std::string bytes = Make();
  PutWord(bytes, catalogtest::kCount, 0x7FFFFFFFu);
  EXPECT_FALSE(Load(bytes));
  PutWord(bytes, catalogtest::kCount, 0xFFFFFFFFu);
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, StringOffsetPastTheEndIsRefused) {
  std::string bytes = Make();
  const size_t entry = EntryAt(bytes, catalogtest::kKeyTable, 2);
  PutWord(bytes, entry + 4, static_cast<uint32_t>(bytes.size()));
  EXPECT_FALSE(Load(bytes));
  PutWord(bytes, entry + 4, 0xFFFFFFFFu);
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, TranslationLengthPastTheEndIsRefused) {
  std::string bytes = Make();
  const size_t entry = EntryAt(bytes, catalogtest::kTranslationTable, 3);
  PutWord(bytes, entry, GetWord(bytes, entry) + 1000);
  EXPECT_FALSE(Load(bytes));
  PutWord(bytes, entry, 0xFFFFFFFFu);
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, LastStringWithoutRoomForItsTerminatorIsRefused) {
  std::string bytes = Make();
  // The last string of the file ends on the file's last byte: drop that
  // terminator.
  EXPECT_TRUE(Load(bytes));
  bytes.pop_back();
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, StringWhoseTerminatorIsNotZeroIsRefused) {
  std::string bytes = Make();
  const size_t entry = EntryAt(bytes, catalogtest::kKeyTable, 1);
  const uint32_t length = GetWord(bytes, entry);
  const uint32_t offset = GetWord(bytes, entry + 4);
  ASSERT_EQ(bytes[offset + length], '\0');
  bytes[offset + length] = 'x';
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, ShorterLengthInsideTheStringIsRefusedWithoutZeroThere) {
  std::string bytes = Make();
  const size_t entry = EntryAt(bytes, catalogtest::kTranslationTable, 1);
  PutWord(bytes, entry, GetWord(bytes, entry) - 1);
  EXPECT_FALSE(Load(bytes));
}

TEST_F(MoImageTest, TranslationOfLengthZeroIsAbsent) {
  std::string bytes = Make();
  // Key 1 is "Hello": point its translation at an empty string (the
  // terminator of the key itself).
  const size_t key = EntryAt(bytes, catalogtest::kKeyTable, 1);
  const size_t translation = EntryAt(bytes, catalogtest::kTranslationTable, 1);
  PutWord(bytes, translation, 0);
  PutWord(bytes, translation + 4, GetWord(bytes, key + 4) + GetWord(bytes, key));
  ASSERT_TRUE(Load(bytes));
  EXPECT_EQ(Translate("Hello"), "<absent>");
  EXPECT_EQ(Translate("Zebra"), "Zebra!");
}

TEST_F(MoImageTest, EmptyTableLoadsWithNothingInIt) {
  std::string bytes = Make();
  PutWord(bytes, catalogtest::kCount, 0);
  ASSERT_TRUE(Load(bytes));
  EXPECT_EQ(m_image.count(), 0);
  EXPECT_EQ(m_image.Find("Hello"), -1);
  EXPECT_EQ(m_image.metadata(), nullptr);
}

TEST_F(MoImageTest, UnsortedKeysAreJustNotFound) {
  std::string bytes = Make();
  // Swap the table entries of "Hello" and "Zebra".
  const size_t first = EntryAt(bytes, catalogtest::kKeyTable, 1);
  const size_t last = EntryAt(bytes, catalogtest::kKeyTable, 3);
  const std::string saved = bytes.substr(first, 8);
  bytes.replace(first, 8, bytes.substr(last, 8));
  bytes.replace(last, 8, saved);
  ASSERT_TRUE(Load(bytes));
  // "Hello world" in the middle is still found; the others may not be.
  EXPECT_EQ(Translate("Hello world"), "Hallo Welt");
  EXPECT_EQ(Translate("Missing"), "<none>");
}

TEST_F(MoImageTest, FailedLoadLeavesTheImageEmpty) {
  ASSERT_TRUE(Load(Make()));
  std::string bytes = Make();
  PutWord(bytes, catalogtest::kRevision, 1);
  EXPECT_FALSE(Load(bytes));
  EXPECT_FALSE(m_image.IsLoaded());
  EXPECT_TRUE(m_image.keys().empty());
  EXPECT_EQ(m_image.charset(), "");
}

TEST_F(MoImageTest, MarkUnloadedKeepsTheTables) {
  ASSERT_TRUE(Load(Make()));
  m_image.MarkUnloaded();
  EXPECT_FALSE(m_image.IsLoaded());
  EXPECT_EQ(m_image.keys().size(), 4u);
  EXPECT_EQ(m_image.Find("Hello"), -1);
  m_image.Clear();
  EXPECT_TRUE(m_image.keys().empty());
}

TEST(MoImageHeader, AcceptsKnownMagicWithRevisionZeroOnly) {
  const unsigned char native[8] = {0xDE, 0x12, 0x04, 0x95, 0, 0, 0, 0};
  const unsigned char swapped[8] = {0x95, 0x04, 0x12, 0xDE, 0, 0, 0, 0};
  const unsigned char revision[8] = {0xDE, 0x12, 0x04, 0x95, 1, 0, 0, 0};
  const unsigned char swappedRevision[8] = {0x95, 0x04, 0x12, 0xDE, 0, 0, 0, 1};
  const unsigned char other[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_TRUE(CMoImage::AcceptsHeader(native));
  EXPECT_TRUE(CMoImage::AcceptsHeader(swapped));
  EXPECT_FALSE(CMoImage::AcceptsHeader(revision));
  EXPECT_FALSE(CMoImage::AcceptsHeader(swappedRevision));
  EXPECT_FALSE(CMoImage::AcceptsHeader(other));
}

}  // namespace
