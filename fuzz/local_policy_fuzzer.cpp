// Feeds arbitrary bytes to the local policy manager as its document, through
// the same load as start-up (a file in a private folder, read by the SAX
// layer), and checks what the record and the FIPS state may hold afterwards.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/Xml/XmlLocalTWPolMgr.h"
#include "fuzz/ScratchFolder.h"

namespace {

using fuzzscratch::Check;

std::string g_folder;  // ends in "/"
XmlLocalTWPolMgr* g_manager = nullptr;

void ReleaseManager() {
  XmlLocalTWPolMgr::ReleaseInstance(g_manager);
}

void SetUp() {
  g_folder = fuzzscratch::ScratchRoot("local_policy_fuzz") + "/";
  fuzzscratch::RemoveAtExit(g_folder + XmlLocalTWPolMgr::kPolicyFileName);
  Check(XmlLocalTWPolMgr::CreateSingletonInstance(&g_manager) == 0);
  Check(g_manager != nullptr);
  atexit(ReleaseManager);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (g_manager == nullptr)
    SetUp();
  fuzzscratch::WriteWhole(g_folder + XmlLocalTWPolMgr::kPolicyFileName, data, size);
  const FipsState before = g_manager->getFipsState();
  const ResultCode result = g_manager->LoadLocalTidewalkerPolicy(g_folder);
  const LocalTWPolicyInfo info = g_manager->getLocalPolicyInfo();

  Check(result == 0 || result == GLOBAL_ERROR_UNEXPECTED);
  const FipsState after = g_manager->getFipsState();
  if (result == 0) {
    // A good load settles the state, and a settled state never moves.
    Check(after == FIPS_STATE_ENABLED || after == FIPS_STATE_DISABLED);
    Check(info.getFipsMode() == (after == FIPS_STATE_ENABLED));
  } else {
    Check(!info.getFipsMode());
  }
  if (before != FIPS_STATE_NOT_SETTLED)
    Check(after == before);

  // Only whole groups of exclusion bits are ever set.
  const uint32_t allStores = kExcludeFirefoxNSSCertStore | kExcludePemFileCertStore |
                             kExcludeWinNativeCertStore | kExcludeMacNativeCertStore;
  Check((info.getExcludedCertStores() & ~allStores) == 0);
  Check(info.getRestrictTunnelProtocols() <= TUNNEL_PROTOCOLS_IPSEC);
  // Bit 0 stays set: it is the default, and "false" sets it again.
  Check(info.getRestrictPreferenceCaching().test(PREFERENCE_CACHING_FALSE));
  Check((info.getRestrictPreferenceCaching().to_ulong() & ~0x3Ful) == 0);
  Check(info.getAuthorizedServerList().size() <= size);
  return 0;
}
