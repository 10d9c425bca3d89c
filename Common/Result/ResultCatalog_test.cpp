#include "Common/Result/ResultCatalog.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string Describe(ResultCode code) {
  return DescribeResultCode(code, kResultCodeModuleCount, g_resultCodeModules);
}

TEST(ResultCatalog, OwnRowCarriesNameAndText) {
  EXPECT_EQ(Describe(0xFEB0000D),
            "KEELENGINE_ERROR_FILE_OPEN_FAILURE:Error: File could not be opened");
  EXPECT_EQ(Describe(KEELENGINE_ERROR_BAD_PARAMETER), "KEELENGINE_ERROR_BAD_PARAMETER");
}

TEST(ResultCatalog, RowPastTheEndFallsToModulesLastRow) {
  EXPECT_EQ(Describe(0xFEB0FFFF), "KEELENGINE_ERROR_UNKNOWN");
}

TEST(ResultCatalog, OnlySevenClassBitsAreTested) {
  EXPECT_EQ(Describe(0xFF30000C), "HASH_ERROR_UPDATE");
}

TEST(ResultCatalog, NonCatalogueCodeIsUnknown) {
  EXPECT_EQ(Describe(0x80000005), "unknown");
  EXPECT_EQ(Describe(0), "unknown");
}

TEST(ResultCatalog, NoTableInstalledIsUnknown) {
  EXPECT_STREQ(DescribeResultCode(0xFEB0000D, 0, nullptr), "unknown");
  EXPECT_STREQ(DescribeResultCode(0xFEB0000D, 0, g_resultCodeModules), "unknown");
}

TEST(ResultCatalog, DummyModuleFallsToItsOnlyRow) {
  EXPECT_EQ(Describe(0xFE6F0005), "DUMMY_ERROR_NOT_IMPLEMENTED");
  EXPECT_EQ(g_resultCodeModules[0x6F].count, 1u);
}

TEST(ResultCatalog, TableKeepsAllSlots) {
  EXPECT_EQ(kResultCodeModuleCount, 265u);
  EXPECT_EQ(g_resultCodeModules[0x108].count, 0u);
  EXPECT_EQ(g_resultCodeModules[0x108].rows, nullptr);
}

TEST(ResultCatalog, ModuleRowCountsMatchTheCatalogue) {
  struct Expected {
    uint32_t module;
    uint32_t count;
    const char* last;
  };
  const Expected expected[] = {
      {0x00, 15, "GLOBAL_ERROR_UNKNOWN"},         {0x01, 20, "EVENT_ERROR_UNKNOWN"},
      {0x2B, 59, "PROCESS_API_ERROR_UNKNOWN"},    {0x30, 17, "HASH_ERROR_UNKNOWN"},
      {0x34, 20, "THREAD_ERROR_UNKNOWN"},         {0x58, 16, "DIRECTORY_ERROR_UNKNOWN"},
      {0x59, 12, "OPENSSLUTILITY_ERROR_UNKNOWN"}, {0x8C, 15, "EVENTLIST_ERROR_UNKNOWN"},
      {0x9E, 14, "CSTORAGEPATH_ERROR_UNKNOWN"},   {0xB0, 22, "KEELENGINE_ERROR_UNKNOWN"},
      {0xB1, 15, "KEELOFFLINE_ERROR_UNKNOWN"},    {0xB6, 12, "XMLLOCALTWPOLMGR_ERROR_UNKNOWN"},
  };
  for (const Expected& e : expected) {
    SCOPED_TRACE(e.module);
    ASSERT_EQ(g_resultCodeModules[e.module].count, e.count);
    EXPECT_STREQ(g_resultCodeModules[e.module].rows[e.count - 1], e.last);
  }
}

TEST(ResultCatalog, ConstantsNameTheirOwnRows) {
  EXPECT_EQ(Describe(PROCESS_API_ERROR_WAIT_TIMEOUT), "PROCESS_API_ERROR_WAIT_TIMEOUT");
  EXPECT_EQ(Describe(PROCESS_API_ERROR_PROCESS_NOT_FOUND), "PROCESS_API_ERROR_PROCESS_NOT_FOUND");
  EXPECT_EQ(Describe(PROCESS_API_ERROR_NO_USER_TOKEN), "PROCESS_API_ERROR_NO_USER_TOKEN");
  EXPECT_EQ(Describe(CSTORAGEPATH_ERROR_TEMPPATH_TOO_BIG), "CSTORAGEPATH_ERROR_TEMPPATH_TOO_BIG");
  EXPECT_EQ(Describe(EVENTLIST_ERROR_BAD_EVENT_PIPE),
            "EVENTLIST_ERROR_BAD_EVENT_PIPE:The event's data structure does not contain a valid OS "
            "pipe handle.");
  EXPECT_EQ(Describe(KEELOFFLINE_ERROR_PROCESSING),
            "KEELOFFLINE_ERROR_PROCESSING:Notice: KEEL GUI is processing...");
  EXPECT_EQ(Describe(DIRECTORY_ERROR_DIRECTORY_ALREADY_EXISTS),
            "DIRECTORY_ERROR_DIRECTORY_ALREADY_EXISTS");
}

TEST(ResultCatalog, FrameIsAMatterOfPositionNotPrefix) {
  EXPECT_EQ(Describe(MakeResultCode(0x43, 0)), "FILESYSTEMWATCHER_SUCCESS");
  EXPECT_EQ(Describe(MakeResultCode(0x43, 0x55)), "FILEWATCHER_ERROR_UNKNOWN");
  EXPECT_STREQ(g_resultCodeModules[0x106].rows[0], "VERIFYTIRULECONTEXT_SUCCESS");
  EXPECT_STREQ(g_resultCodeModules[0x106].rows[10], "VERIFYCTRULECONTEXT_ERROR_UNKNOWN");
}

TEST(ResultCatalog, OtherModulesKeepFrameAndLastRow) {
  EXPECT_EQ(Describe(0xFE2F0002), "AUTOPROXY_ERROR_BAD_PARAMETER");
  EXPECT_EQ(Describe(0xFE2F0042), "AUTOPROXY_ERROR_UNKNOWN");
  EXPECT_EQ(Describe(0xFEFF0009), "MTUADJUSTMENTCACHE_ERROR_UNEXPECTED");
}

}  // namespace
