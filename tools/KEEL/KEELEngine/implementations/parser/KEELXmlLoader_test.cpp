#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELMgr.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlMgr.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlParser.h"

namespace {

// Frees the documents a folder load hands to its caller.
class OwnedDocuments {
 public:
  ~OwnedDocuments() {
    for (XMLObject* document : list) {
      delete document;
    }
  }
  XMLObjectList list;
};

std::vector<std::string> RootNames(const XMLObjectList& documents) {
  std::vector<std::string> names;
  for (const XMLObject* document : documents) {
    names.push_back(document->GetName());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Entry names in the order the directory returns them.
std::vector<std::string> DirectoryOrder(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) {
    return names;
  }
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  closedir(dir);
  return names;
}

const char kConfig[] =
    "<?xml version=\"1.0\"?>\n"
    "<config>\n"
    "  <fileGroup treeRootName=\" Group \" directoryName=\"g\">\n"
    "    <file id=\" 7 \">\n"
    "      <default>\n        true\n      </default>\n"
    "      <description>a &amp; b</description>\n"
    "      <keel><os opsys=\"linux\"/></keel>\n"
    "    </file>\n"
    "  </fileGroup>\n"
    "</config>\n";

// A manager that has been given the events of `text`; the parse answers
// `expected`.
std::unique_ptr<KEELXmlMgr> TreeOf(const std::string& text, ResultCode expected = 0) {
  std::unique_ptr<KEELXmlMgr> manager(new KEELXmlMgr());
  KEELXmlParser parser(manager.get());
  EXPECT_EQ(parser.parseMemory(text), expected) << text;
  return manager;
}

}  // namespace

// KEELXmlMgr: building trees from events.

TEST(KEELXmlMgr, BuildsATreeFromEvents) {
  KEELXmlMgr manager;
  ASSERT_NE(manager.getDocument(), nullptr);
  EXPECT_EQ(manager.getDocument()->GetRoot(), nullptr);
  manager.startElement("r");
  manager.attribute("k", "v");
  manager.elementValue("a");
  manager.startElement("c");
  manager.endElement("ignored-name");
  manager.elementValue("");
  manager.elementValue("b");
  manager.endElement("r");
  XMLObject* document = manager.getDocument();
  ASSERT_NE(document->GetRoot(), nullptr);
  EXPECT_EQ(document->GetName(), "r");
  EXPECT_EQ(document->GetValue(), "ab");
  EXPECT_EQ(document->GetCount(), 2u);
  EXPECT_EQ(document->GetRoot()->FindAttribute("k")->GetValue(), "v");
  EXPECT_EQ(document->GetRoot()->FindChild("c")->GetParent(), document->GetRoot());
}

TEST(KEELXmlMgr, EventsWithoutAnOpenElementAreDropped) {
  KEELXmlMgr manager;
  manager.attribute("k", "v");
  manager.elementValue("text");
  manager.endElement("x");
  EXPECT_EQ(manager.getDocument()->GetRoot(), nullptr);
}

TEST(KEELXmlMgr, EntityTextReachesTheTreeWithoutTheBlanksBesideIt) {
  const auto manager = TreeOf("<a>a &amp; b</a>");
  EXPECT_EQ(manager->getDocument()->GetValue(), "a&b");
}

TEST(KEELXmlMgr, WhiteSpaceBetweenChildrenAddsNothing) {
  const auto manager = TreeOf("<a>\n  <b> x </b>\n  <c/>\n</a>");
  XMLObject* document = manager->getDocument();
  EXPECT_EQ(document->GetValue(), "");
  EXPECT_EQ(document->FindChild(document->GetRoot(), "b")->GetValue(), "x");
  EXPECT_EQ(document->GetCount(), 3u);
}

TEST(KEELXmlMgr, TextAroundChildrenIsJoinedWithoutSeparator) {
  const auto manager = TreeOf("<a> one <b/> two </a>");
  EXPECT_EQ(manager->getDocument()->GetValue(), "onetwo");
}

TEST(KEELXmlMgr, CdataAndTrimmedAttributesReachTheTree) {
  const auto manager = TreeOf("<a v=\"  a \"><![CDATA[ <x> ]]></a>");
  EXPECT_EQ(manager->getDocument()->GetValue(), "<x>");
  EXPECT_EQ(manager->getDocument()->GetRoot()->FindAttribute("v")->GetValue(), "a");
}

TEST(KEELXmlMgr, FailedParseLeavesWhatCameBefore) {
  const auto manager = TreeOf("<r><a>1</a><b>2</b><c>3</c>", GLOBAL_ERROR_UNEXPECTED);
  XMLObject* document = manager->getDocument();
  ASSERT_NE(document->GetRoot(), nullptr);
  EXPECT_EQ(document->GetCount(), 4u);
  EXPECT_EQ(document->FindChild(document->GetRoot(), "c")->GetValue(), "3");
}

TEST(KEELXmlMgr, LargeTextIsGatheredInOnePiece) {
  const std::string big(4 * 1024 * 1024, 'q');
  EXPECT_EQ(TreeOf("<a>" + big + "</a>")->getDocument()->GetValue(), big);
}

// KEELXmlParser

TEST(KEELXmlParser, NullManagerIsNotRefusedUpFront) {
  KEELXmlParser parser(nullptr);
  keeltest::LogCapture capture;
  EXPECT_EQ(parser.parseMemory("<a/>"), 0u);
  EXPECT_FALSE(capture.Contains("XML Manager not provided"));
  EXPECT_EQ(capture.Count("No XML Manager provided."), 2u);
}

TEST(KEELXmlParser, ParsesTextAndFiles) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f.xml"), "<f/>"));
  KEELXmlMgr fromFile;
  EXPECT_EQ(KEELXmlParser(&fromFile).parseFile(dir.Sub("f.xml")), 0u);
  EXPECT_EQ(fromFile.getDocument()->GetName(), "f");
  KEELXmlMgr fromText;
  EXPECT_EQ(KEELXmlParser(&fromText).parseMemory("<t/>"), 0u);
  EXPECT_EQ(fromText.getDocument()->GetName(), "t");
  KEELXmlMgr bad;
  EXPECT_EQ(KEELXmlParser(&bad).parseFile(dir.Sub("none.xml")), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_EQ(KEELXmlParser(&bad).parseMemory(""), GLOBAL_ERROR_UNEXPECTED);
}

// KEELXmlLoader: text and file.

TEST(KEELXmlLoader, StartsInvalidWithNoFailedFiles) {
  KEELXmlLoader loader;
  EXPECT_FALSE(loader.isValid());
  EXPECT_TRUE(loader.getFailedFiles().empty());
}

TEST(KEELXmlLoader, TextLoadAppendsTheLoadersOwnDocument) {
  KEELXmlLoader loader;
  XMLObjectList documents;
  XMLObjectList* result = loader.Load(kConfig, KEELXmlLoader::kTypeText, documents);
  ASSERT_EQ(result, &documents);
  EXPECT_TRUE(loader.isValid());
  ASSERT_EQ(documents.size(), 1u);
  XMLObject* document = documents.front();
  EXPECT_EQ(document->GetName(), "config");
  KEELComponent* file = document->FindChildUnder("fileGroup", "file");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->FindAttribute("id")->GetValue(), "7");
  EXPECT_EQ(file->FindChild("default")->GetValue(), "true");
  EXPECT_EQ(file->FindChild("description")->GetValue(), "a&b");
  EXPECT_EQ(file->FindChild("os")->FindAttribute("opsys")->GetValue(), "linux");
  EXPECT_EQ(document->GetRoot()->FindChild("fileGroup")->FindAttribute("treeRootName")->GetValue(),
            "Group");
  // The document stays the loader's: not freed here.
}

TEST(KEELXmlLoader, FileLoadAppendsTheLoadersOwnDocument) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("request.xml"), kConfig));
  KEELXmlLoader loader;
  XMLObjectList documents;
  ASSERT_EQ(loader.Load(dir.Sub("request.xml"), KEELXmlLoader::kTypeFile, documents), &documents);
  EXPECT_TRUE(loader.isValid());
  ASSERT_EQ(documents.size(), 1u);
  EXPECT_EQ(documents.front()->GetName(), "config");
  EXPECT_TRUE(loader.getFailedFiles().empty());
}

TEST(KEELXmlLoader, FailedLoadReturnsNullAndClearsTheFlag) {
  KEELXmlLoader loader;
  XMLObjectList documents;
  ASSERT_NE(loader.Load("<a/>", KEELXmlLoader::kTypeText, documents), nullptr);
  EXPECT_TRUE(loader.isValid());
  documents.clear();
  EXPECT_EQ(loader.Load("<a>", KEELXmlLoader::kTypeText, documents), nullptr);
  EXPECT_FALSE(loader.isValid());
  EXPECT_TRUE(documents.empty());
  EXPECT_EQ(loader.Load("/no/such/file.xml", KEELXmlLoader::kTypeFile, documents), nullptr);
  EXPECT_FALSE(loader.isValid());
  EXPECT_EQ(loader.Load("   ", KEELXmlLoader::kTypeText, documents), nullptr);
  EXPECT_TRUE(documents.empty());
}

TEST(KEELXmlLoader, UnknownTypeReturnsNull) {
  KEELXmlLoader loader;
  XMLObjectList documents;
  ASSERT_NE(loader.Load("<a/>", KEELXmlLoader::kTypeText, documents), nullptr);
  for (int type : {3, -1, 100}) {
    EXPECT_EQ(loader.Load("<a/>", type, documents), nullptr) << type;
    EXPECT_FALSE(loader.isValid());
  }
  EXPECT_EQ(documents.size(), 1u);
}

TEST(KEELXmlLoader, LoadingAgainAddsToTheSameDocument) {
  KEELXmlLoader loader;
  XMLObjectList documents;
  ASSERT_NE(loader.Load("<first><x/></first>", KEELXmlLoader::kTypeText, documents), nullptr);
  KEELComponent* x = documents.front()->FindChild(documents.front()->GetRoot(), "x");
  ASSERT_NE(loader.Load("<second/>", KEELXmlLoader::kTypeText, documents), nullptr);
  ASSERT_EQ(documents.size(), 2u);
  EXPECT_EQ(documents.front(), documents.back());
  EXPECT_EQ(documents.front()->GetName(), "second");
  // The earlier tree is still alive for pointers taken from it.
  EXPECT_EQ(x->GetName(), "x");
}

// KEELXmlLoader and KEELMgr: folders.

TEST(KEELXmlLoaderFolder, FolderWithoutXmlGivesNullAndNoFailedFiles) {
  keeltest::TempDir dir;
  ASSERT_TRUE(
      dir.WriteEach({"readme.txt", "A.XML", "a.xml.bak", "a.xml.xml", "xml", ".xmlx"}, "<a/>"));
  KEELXmlLoader loader;
  OwnedDocuments documents;
  keeltest::LogCapture capture;
  EXPECT_EQ(loader.Load(dir.path() + "/", KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  EXPECT_FALSE(loader.isValid());
  EXPECT_TRUE(documents.list.empty());
  EXPECT_TRUE(loader.getFailedFiles().empty());
  EXPECT_FALSE(capture.Contains("found file"));
}

TEST(KEELXmlLoaderFolder, EmptyFolderGivesNull) {
  keeltest::TempDir dir;
  KEELXmlLoader loader;
  OwnedDocuments documents;
  EXPECT_EQ(loader.Load(dir.path() + "/", KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  EXPECT_TRUE(loader.getFailedFiles().empty());
}

TEST(KEELXmlLoaderFolder, FolderThatCannotBeOpenedGivesNullSilently) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("plain"), "x"));
  KEELXmlLoader loader;
  OwnedDocuments documents;
  keeltest::LogCapture capture;
  EXPECT_EQ(loader.Load(dir.Sub("missing/"), KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  EXPECT_EQ(loader.Load(dir.Sub("plain"), KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  EXPECT_EQ(loader.Load("", KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  EXPECT_TRUE(loader.getFailedFiles().empty());
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(KEELXmlLoaderFolder, OneGoodAndOneBrokenFileGiveOneDocumentAndOneFailure) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("good.xml"), kConfig));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("broken.xml"), "<config><fileGroup></config>"));
  const std::string folder = dir.path() + "/";
  KEELXmlLoader loader;
  OwnedDocuments documents;
  EXPECT_EQ(loader.Load(folder, KEELXmlLoader::kTypeFolder, documents.list), &documents.list);
  EXPECT_TRUE(loader.isValid());
  ASSERT_EQ(documents.list.size(), 1u);
  EXPECT_EQ(documents.list.front()->GetName(), "config");
  EXPECT_EQ(loader.getFailedFiles(), (std::list<std::string>{folder + "broken.xml"}));
  // The copies are complete trees.
  KEELComponent* file = documents.list.front()->FindChildUnder("fileGroup", "file");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->FindChild("default")->GetValue(), "true");
}

TEST(KEELXmlLoaderFolder, EntryNamedXmlThatIsAFolderFailsAndIsListed) {
  keeltest::TempDir dir;
  ASSERT_EQ(mkdir(dir.Sub("x.xml").c_str(), 0755), 0);
  const std::string folder = dir.path() + "/";
  KEELXmlLoader loader;
  OwnedDocuments documents;
  EXPECT_EQ(loader.Load(folder, KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  EXPECT_EQ(loader.getFailedFiles(), (std::list<std::string>{folder + "x.xml"}));
  EXPECT_FALSE(loader.isValid());
}

TEST(KEELXmlLoaderFolder, PathIsFolderTextAndNameWithoutSeparator) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("cfg/a.xml"), "<a/>"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("cfga.xml"), "<decoy/>"));
  KEELXmlLoader loader;
  OwnedDocuments documents;
  keeltest::LogCapture capture;
  // Without the trailing "/", the folder is listed but each path misses it.
  EXPECT_EQ(loader.Load(dir.Sub("cfg"), KEELXmlLoader::kTypeFolder, documents.list),
            &documents.list);
  ASSERT_EQ(documents.list.size(), 1u);
  EXPECT_EQ(documents.list.front()->GetName(), "decoy");
  EXPECT_EQ(capture.Count("found file"), 1u);
  EXPECT_TRUE(capture.Contains("Description: " + dir.Sub("cfga.xml")));
}

TEST(KEELXmlLoaderFolder, FoundFileIsLoggedAtInfoLevelWithCodeZero) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("one.xml"), "<a/>"));
  const std::string folder = dir.path() + "/";
  keeltest::LogCapture capture;
  OwnedDocuments documents;
  KEELMgr reader(documents.list, folder);
  std::vector<keeltest::LogRecord> found;
  for (const auto& record : capture.logger().Records()) {
    if (record.message.find("found file") != std::string::npos) {
      found.push_back(record);
    }
  }
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].level, LOG_LEVEL_I);
  EXPECT_NE(found[0].message.find("Invoked Function: found file"), std::string::npos);
  EXPECT_NE(found[0].message.find("Return Code: 0 (0x00000000)"), std::string::npos);
  EXPECT_NE(found[0].message.find("Description: " + folder + "one.xml"), std::string::npos);
  EXPECT_NE(found[0].message.find("Function: addFile"), std::string::npos);
}

TEST(KEELXmlLoaderFolder, OnlyAFirstXmlThatEndsTheNameCounts) {
  keeltest::TempDir dir;
  for (const char* name :
       {"a.xml", "b.xml.xml", "c.xml.bak", "D.XML", "e.Xml", ".xml", "f.xmlx", "g.xm", "hxml"}) {
    ASSERT_TRUE(keeltest::WriteFile(dir.Sub(name), std::string("<r n=\"") + name + "\"/>"));
  }
  KEELXmlLoader loader;
  OwnedDocuments documents;
  ASSERT_NE(loader.Load(dir.path() + "/", KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  std::vector<std::string> names;
  for (const XMLObject* document : documents.list) {
    names.push_back(document->GetRoot()->FindAttribute("n")->GetValue());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{".xml", "a.xml"}));
}

TEST(KEELXmlLoaderFolder, DocumentsComeInDirectoryOrder) {
  keeltest::TempDir dir;
  for (int i = 0; i < 20; ++i) {
    const std::string name = "f" + std::to_string(i) + ".xml";
    ASSERT_TRUE(
        keeltest::WriteFile(dir.Sub(name), "<" + std::string("r") + std::to_string(i) + "/>"));
  }
  const std::vector<std::string> order = DirectoryOrder(dir.path());
  ASSERT_EQ(order.size(), 20u);
  KEELXmlLoader loader;
  OwnedDocuments documents;
  ASSERT_NE(loader.Load(dir.path() + "/", KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  std::vector<std::string> expected;
  for (const std::string& name : order) {
    expected.push_back("r" + name.substr(1, name.size() - 5));
  }
  std::vector<std::string> got;
  for (const XMLObject* document : documents.list) {
    got.push_back(document->GetName());
  }
  EXPECT_EQ(got, expected);
}

TEST(KEELXmlLoaderFolder, FailedListIsReplacedOnEachFolderLoad) {
  keeltest::TempDir first;
  keeltest::TempDir second;
  ASSERT_TRUE(keeltest::WriteFile(first.Sub("bad.xml"), "<"));
  ASSERT_TRUE(keeltest::WriteFile(second.Sub("ok.xml"), "<ok/>"));
  KEELXmlLoader loader;
  OwnedDocuments documents;
  EXPECT_EQ(loader.Load(first.path() + "/", KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  EXPECT_EQ(loader.getFailedFiles().size(), 1u);
  EXPECT_NE(loader.Load(second.path() + "/", KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  EXPECT_TRUE(loader.getFailedFiles().empty());
  // A text load leaves the list alone.
  EXPECT_EQ(loader.Load(first.path() + "/", KEELXmlLoader::kTypeFolder, documents.list),
            &documents.list);  // the list already holds a document
  EXPECT_EQ(loader.getFailedFiles().size(), 1u);
  XMLObjectList own;
  EXPECT_NE(loader.Load("<t/>", KEELXmlLoader::kTypeText, own), nullptr);
  EXPECT_EQ(loader.getFailedFiles().size(), 1u);
}

TEST(KEELXmlLoaderFolder, CopiesOutliveTheirParseAndKeepStaleParentLinks) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("a.xml"), "<r><c><d>v</d></c></r>"));
  OwnedDocuments documents;
  KEELXmlLoader loader;
  ASSERT_NE(loader.Load(dir.path() + "/", KEELXmlLoader::kTypeFolder, documents.list), nullptr);
  XMLObject* document = documents.list.front();
  KEELComponent* c = document->GetRoot()->FindChild("c");
  KEELComponent* d = document->GetRoot()->FindChild("d");
  ASSERT_NE(c, nullptr);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->GetValue(), "v");
  EXPECT_EQ(document->GetCount(), 3u);
  // The copies' inner parent links point into the parse tree that is gone,
  // not into this document.
  EXPECT_EQ(document->GetRoot()->GetParent(), nullptr);
  EXPECT_NE(c->GetParent(), document->GetRoot());
  EXPECT_NE(d->GetParent(), c);
}

TEST(KEELMgr, RecordsOneResultPerParsedFile) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("a.xml"), "<a/>"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("b.xml"), "<b>"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("c.txt"), "<c/>"));
  OwnedDocuments documents;
  KEELMgr reader(documents.list, dir.path() + "/");
  const std::list<uint64_t> results = reader.getResults();
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(std::count(results.begin(), results.end(), 0u), 1);
  EXPECT_EQ(std::count(results.begin(), results.end(), uint64_t{GLOBAL_ERROR_UNEXPECTED}), 1);
  EXPECT_EQ(reader.getFailedFiles(), (std::list<std::string>{dir.Sub("b.xml")}));
  EXPECT_EQ(RootNames(documents.list), (std::vector<std::string>{"a"}));
}

TEST(KEELMgr, UnreadableFileIsListedAsFailed) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("locked.xml"), "<a/>"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("open.xml"), "<b/>"));
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(dir.Sub("locked.xml").c_str(), 0), 0);
  const int answer = keeltest::RunAsNobody([&] {
    XMLObjectList list;
    int status = 0;
    {
      KEELMgr reader(list, dir.path() + "/");
      const bool ok = reader.getFailedFiles() == std::list<std::string>{dir.Sub("locked.xml")} &&
                      list.size() == 1 && list.front()->GetName() == "b";
      status = ok ? 0 : 1;
    }
    for (XMLObject* document : list) {
      delete document;
    }
    return status;
  });
  if (answer == keeltest::kCannotBecomeNobody)
    GTEST_SKIP() << "cannot drop privileges here";
  EXPECT_EQ(answer, 0);
}
