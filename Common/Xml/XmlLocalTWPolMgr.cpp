#include "Common/Xml/XmlLocalTWPolMgr.h"

#include <cstring>
#include <map>

#include "Common/Log/Log.h"
#include "Common/Log/ManualLock.h"
#include "Common/Utility/InstanceSmartPtr.h"
#include "Common/Utility/SingletonRegistry.h"
#include "Common/Utility/StoragePath.h"
#include "Common/Utility/sysutils.h"
#include "Common/Xml/XmlParser.h"

namespace {

const char kRootElement[] = "TidewalkerLocalPolicy";
const char kVersionAttribute[] = "twversion";
const char kUpdatePolicy[] = "UpdatePolicy";
const char kAuthorizedServerList[] = "AuthorizedServerList";
const char kServerName[] = "ServerName";
const char kFipsMode[] = "FipsMode";
const char kRestrictPreferenceCaching[] = "RestrictPreferenceCaching";
const char kRestrictTunnelProtocols[] = "RestrictTunnelProtocols";
const char kStructureWarning[] = "Local Policy XML structure is incorrect.";
// The family's log lines name the event handlers by their older names.
const char kElementValueLogName[] = "setElementValue";
const char kAttributeLogName[] = "addAttribute";

// The tokens of RestrictPreferenceCaching, built once for the process.
const std::map<std::string, uint32_t> kPreferenceCachingTokens = {
    {"false", PREFERENCE_CACHING_FALSE},
    {"Credentials", PREFERENCE_CACHING_CREDENTIALS},
    {"Thumbprints", PREFERENCE_CACHING_THUMBPRINTS},
    {"CredentialsAndThumbprints", PREFERENCE_CACHING_CREDENTIALS_AND_THUMBPRINTS},
    {"AutomaticServerSelection", PREFERENCE_CACHING_AUTOMATIC_SERVER_SELECTION},
    {"All", PREFERENCE_CACHING_ALL},
};

typedef void (LocalTWPolicyInfo::*FlagSetter)(bool);

// Keys that are a plain "true"/anything-else flag of the record, and
// whether they belong inside UpdatePolicy.
struct FlagKey {
  const char* element;
  FlagSetter setter;
  bool needsUpdatePolicy;
};

const FlagKey kFlagKeys[] = {
    {"BypassDownloader", &LocalTWPolicyInfo::setBypassDownloader, false},
    {"BypassDefaultLocalization", &LocalTWPolicyInfo::setBypassDefaultLocalization, false},
    {"RestrictScriptWebDeploy", &LocalTWPolicyInfo::setRestrictScriptWebDeploy, false},
    {"RestrictHelpWebDeploy", &LocalTWPolicyInfo::setRestrictHelpWebDeploy, false},
    {"RestrictResourceWebDeploy", &LocalTWPolicyInfo::setRestrictResourceWebDeploy, false},
    {"RestrictLocalizationWebDeploy", &LocalTWPolicyInfo::setRestrictLocalizationWebDeploy, false},
    {"RestrictWebLaunch", &LocalTWPolicyInfo::setRestrictWebLaunch, false},
    {"StrictCertificateTrust", &LocalTWPolicyInfo::setStrictCertificateTrust, false},
    {"EnableCRLCheck", &LocalTWPolicyInfo::setEnableCRLCheck, false},
    {"OCSPRevocation", &LocalTWPolicyInfo::setOCSPRevocation, false},
    {"RestrictServerCertStore", &LocalTWPolicyInfo::setRestrictServerCertStore, false},
    {"AllowSoftwareUpdatesFromAnyServer", &LocalTWPolicyInfo::setAllowSoftwareUpdatesFromAnyServer,
     true},
    {"AllowComplianceModuleUpdatesFromAnyServer",
     &LocalTWPolicyInfo::setAllowComplianceModuleUpdatesFromAnyServer, true},
    {"AllowVPNProfileUpdatesFromAnyServer",
     &LocalTWPolicyInfo::setAllowVPNProfileUpdatesFromAnyServer, true},
    {"AllowManagementVPNProfileUpdatesFromAnyServer",
     &LocalTWPolicyInfo::setAllowManagementVPNProfileUpdatesFromAnyServer, true},
    {"AllowNACProfileUpdatesFromAnyServer",
     &LocalTWPolicyInfo::setAllowNACProfileUpdatesFromAnyServer, true},
    {"AllowServiceProfileUpdatesFromAnyServer",
     &LocalTWPolicyInfo::setAllowServiceProfileUpdatesFromAnyServer, true},
    {"AllowScriptUpdatesFromAnyServer", &LocalTWPolicyInfo::setAllowScriptUpdatesFromAnyServer,
     true},
    {"AllowHelpUpdatesFromAnyServer", &LocalTWPolicyInfo::setAllowHelpUpdatesFromAnyServer, true},
    {"AllowResourceUpdatesFromAnyServer", &LocalTWPolicyInfo::setAllowResourceUpdatesFromAnyServer,
     true},
    {"AllowLocalizationUpdatesFromAnyServer",
     &LocalTWPolicyInfo::setAllowLocalizationUpdatesFromAnyServer, true},
};

struct ExclusionKey {
  const char* element;
  uint32_t bits;
};

const ExclusionKey kExclusionKeys[] = {
    {"ExcludeFirefoxNSSCertStore", kExcludeFirefoxNSSCertStore},
    {"ExcludePemFileCertStore", kExcludePemFileCertStore},
    {"ExcludeWinNativeCertStore", kExcludeWinNativeCertStore},
    {"ExcludeMacNativeCertStore", kExcludeMacNativeCertStore},
};

// Case matters: only the exact text "true" is true.
bool IsTrue(const std::string& value) {
  return value == "true";
}

CSingletonRegistry<XmlLocalTWPolMgr>& Registry() {
  static CSingletonRegistry<XmlLocalTWPolMgr> registry;
  return registry;
}

}  // namespace

// LocalTWPolicyInfo.

LocalTWPolicyInfo::LocalTWPolicyInfo() {
  ResetToDefaults();
}

LocalTWPolicyInfo::LocalTWPolicyInfo(const LocalTWPolicyInfo& other) {
  *this = other;
}

LocalTWPolicyInfo::~LocalTWPolicyInfo() = default;

LocalTWPolicyInfo& LocalTWPolicyInfo::operator=(const LocalTWPolicyInfo& other) {
  if (this == &other)
    return *this;
  m_version = other.m_version;
  m_fipsMode = other.m_fipsMode;
  m_bypassDownloader = other.m_bypassDownloader;
  m_bypassDefaultLocalization = other.m_bypassDefaultLocalization;
  m_restrictScriptWebDeploy = other.m_restrictScriptWebDeploy;
  m_restrictHelpWebDeploy = other.m_restrictHelpWebDeploy;
  m_restrictResourceWebDeploy = other.m_restrictResourceWebDeploy;
  m_restrictLocalizationWebDeploy = other.m_restrictLocalizationWebDeploy;
  m_restrictWebLaunch = other.m_restrictWebLaunch;
  m_strictCertificateTrust = other.m_strictCertificateTrust;
  m_enableCRLCheck = other.m_enableCRLCheck;
  m_ocspRevocation = other.m_ocspRevocation;
  m_restrictPreferenceCaching = other.m_restrictPreferenceCaching;
  m_restrictTunnelProtocols = other.m_restrictTunnelProtocols;
  m_excludedCertStores = other.m_excludedCertStores;
  m_restrictServerCertStore = other.m_restrictServerCertStore;
  m_allowSoftwareUpdatesFromAnyServer = other.m_allowSoftwareUpdatesFromAnyServer;
  m_allowComplianceModuleUpdatesFromAnyServer = other.m_allowComplianceModuleUpdatesFromAnyServer;
  m_allowVPNProfileUpdatesFromAnyServer = other.m_allowVPNProfileUpdatesFromAnyServer;
  m_allowManagementVPNProfileUpdatesFromAnyServer =
      other.m_allowManagementVPNProfileUpdatesFromAnyServer;
  m_allowNACProfileUpdatesFromAnyServer = other.m_allowNACProfileUpdatesFromAnyServer;
  m_allowServiceProfileUpdatesFromAnyServer = other.m_allowServiceProfileUpdatesFromAnyServer;
  m_allowScriptUpdatesFromAnyServer = other.m_allowScriptUpdatesFromAnyServer;
  m_allowHelpUpdatesFromAnyServer = other.m_allowHelpUpdatesFromAnyServer;
  m_allowResourceUpdatesFromAnyServer = other.m_allowResourceUpdatesFromAnyServer;
  m_allowLocalizationUpdatesFromAnyServer = other.m_allowLocalizationUpdatesFromAnyServer;
  m_authorizedServers = other.m_authorizedServers;
  return *this;
}

void LocalTWPolicyInfo::ResetToDefaults() {
  m_version.clear();
  m_fipsMode = false;
  m_bypassDownloader = false;
  m_bypassDefaultLocalization = false;
  m_restrictScriptWebDeploy = false;
  m_restrictHelpWebDeploy = false;
  m_restrictResourceWebDeploy = false;
  m_restrictLocalizationWebDeploy = false;
  m_restrictWebLaunch = false;
  m_strictCertificateTrust = false;
  m_enableCRLCheck = false;
  m_ocspRevocation = false;
  m_restrictPreferenceCaching.reset();
  m_restrictPreferenceCaching.set(PREFERENCE_CACHING_FALSE);
  m_restrictTunnelProtocols = TUNNEL_PROTOCOLS_UNRESTRICTED;
  m_excludedCertStores = 0;
  m_restrictServerCertStore = false;
  m_allowSoftwareUpdatesFromAnyServer = true;
  m_allowComplianceModuleUpdatesFromAnyServer = true;
  m_allowVPNProfileUpdatesFromAnyServer = true;
  m_allowManagementVPNProfileUpdatesFromAnyServer = true;
  m_allowNACProfileUpdatesFromAnyServer = true;
  m_allowServiceProfileUpdatesFromAnyServer = true;
  m_allowScriptUpdatesFromAnyServer = true;
  m_allowHelpUpdatesFromAnyServer = true;
  m_allowResourceUpdatesFromAnyServer = true;
  m_allowLocalizationUpdatesFromAnyServer = true;
  m_authorizedServers.clear();
}

bool LocalTWPolicyInfo::isFirefoxNSSCertStoreExcluded() const {
  return (m_excludedCertStores & kExcludeFirefoxNSSCertStore) == kExcludeFirefoxNSSCertStore;
}

bool LocalTWPolicyInfo::isPemFileCertStoreExcluded() const {
  return (m_excludedCertStores & kExcludePemFileCertStore) == kExcludePemFileCertStore;
}

bool LocalTWPolicyInfo::isWinNativeCertStoreExcluded() const {
  return (m_excludedCertStores & kExcludeWinNativeCertStore) == kExcludeWinNativeCertStore;
}

bool LocalTWPolicyInfo::isMacNativeCertStoreExcluded() const {
  return (m_excludedCertStores & kExcludeMacNativeCertStore) == kExcludeMacNativeCertStore;
}

bool LocalTWPolicyInfo::isServerCertStoreRestricted() const {
  return m_restrictServerCertStore || m_strictCertificateTrust;
}

// XmlLocalTWPolMgr: lifetime.

XmlLocalTWPolMgr::XmlLocalTWPolMgr()
    : m_documentFips(false),
      m_fipsState(FIPS_STATE_NOT_SETTLED),
      m_fipsChanged(false),
      m_inAuthorizedServerList(false),
      m_inUpdatePolicy(false) {}

XmlLocalTWPolMgr::~XmlLocalTWPolMgr() = default;

ResultCode XmlLocalTWPolMgr::CreateSingletonInstance(XmlLocalTWPolMgr** instance) {
  *instance = nullptr;
  CManualLockGuard guard(Registry().lock());
  // Unlike the storage paths, a second creator is refused: it must acquire.
  if (!Registry().vacant())
    return XMLLOCALTWPOLMGR_ERROR_ALREADY_INITIALIZED;
  XmlLocalTWPolMgr* created = new XmlLocalTWPolMgr();
  Registry().install(created);
  *instance = created;
  return 0;
}

XmlLocalTWPolMgr* XmlLocalTWPolMgr::AcquireInstance() {
  return Registry().acquire();
}

void XmlLocalTWPolMgr::ReleaseInstance(XmlLocalTWPolMgr* instance) {
  Registry().release(instance);
}

uint32_t XmlLocalTWPolMgr::GetAcquisitionCount() {
  return Registry().count();
}

// Loading.

ResultCode XmlLocalTWPolMgr::getLocalSecurityPolicyDir(std::string& dir) {
  dir.clear();
  CInstanceSmartPtr<CStoragePath> storagePath;
  if (storagePath.IsNull()) {
    KLOG_RC(LOG_LEVEL_E, "CInstanceSmartPtr<StoragePath>", CSTORAGEPATH_ERROR_NO_INSTANCE);
    return CSTORAGEPATH_ERROR_NO_INSTANCE;
  }
  dir = storagePath->GetInstallPath();
  return 0;
}

ResultCode XmlLocalTWPolMgr::getLocalSecurityPolicy(std::string& dir) {
  const ResultCode result = getLocalSecurityPolicyDir(dir);
  if (result != 0)
    KLOG_RC(LOG_LEVEL_E, "XmlLocalTWPolMgr::getLocalSecurityPolicyDir", result);
  return result;
}

ResultCode XmlLocalTWPolMgr::GetLocalPolicyLocation(std::string& dir, std::string& fileName) {
  fileName = kPolicyFileName;
  return getLocalSecurityPolicyDir(dir);
}

ResultCode XmlLocalTWPolMgr::LoadLocalTidewalkerPolicy() {
  std::string folder;
  const ResultCode result = getLocalSecurityPolicy(folder);
  if (result != 0) {
    // Without the install folder there is no document to look for; a bare
    // file name would be looked up in the working folder instead.
    m_policyInfo.ResetToDefaults();
    return result;
  }
  return LoadLocalTidewalkerPolicy(folder);
}

ResultCode XmlLocalTWPolMgr::LoadLocalTidewalkerPolicy(const std::string& folder) {
  // The reset keeps the settled FIPS state.
  m_policyInfo.ResetToDefaults();
  const std::string path = folder + kPolicyFileName;
  if (!fileExists(path))
    return 0;

  m_documentFips = false;
  m_currentElement.clear();
  m_inAuthorizedServerList = false;
  m_inUpdatePolicy = false;
  XmlParser parser(this);
  const ResultCode result = parser.parseFile(path, true);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "XmlParser::parseFile", result);
    return result;
  }

  // The first good load decides; later loads only note a difference.
  if (m_fipsState == FIPS_STATE_NOT_SETTLED)
    m_fipsState = m_documentFips ? FIPS_STATE_ENABLED : FIPS_STATE_DISABLED;
  m_policyInfo.setFipsMode(m_fipsState == FIPS_STATE_ENABLED);
  m_fipsChanged = m_documentFips != m_policyInfo.getFipsMode();
  KLOG_I("FIPS mode is %s.", m_policyInfo.getFipsMode() ? "enabled" : "disabled");
  return 0;
}

// Parser events.

void XmlLocalTWPolMgr::startElement(const std::string& name) {
  m_currentElement.clear();
  if (name == kUpdatePolicy)
    m_inUpdatePolicy = true;
  if (name == kAuthorizedServerList) {
    if (m_inUpdatePolicy)
      m_inAuthorizedServerList = true;
    return;
  }
  // A server name outside its list keeps the current element empty, so its
  // text is ignored.
  if (name == kServerName && !m_inAuthorizedServerList)
    return;
  m_currentElement = name;
}

void XmlLocalTWPolMgr::endElement(const std::string& name) {
  m_currentElement.clear();
  if (name == kAuthorizedServerList)
    m_inAuthorizedServerList = false;
  else if (name == kUpdatePolicy)
    m_inUpdatePolicy = false;
}

void XmlLocalTWPolMgr::attribute(const std::string& name, const std::string& value) {
  if (m_currentElement != kRootElement || name != kVersionAttribute)
    return;
  m_policyInfo.setVersion(value);
  const std::vector<int32_t> document = CStringUtils::parseVersionNumbers(value, ".,");
  const std::vector<int32_t> client = CStringUtils::parseVersionNumbers(kClientVersion, ".,");
  if (CStringUtils::compareVersions(document, client) > 0) {
    // A newer document is still read: unknown keys are ignored anyway.
    LogDebugMessage(kAttributeLogName, __FILE__, __LINE__, LOG_LEVEL_W,
                    "The parsed Local Security Policy File version is newer than the current "
                    "Velon Tessel Client. Unexpected behaviors can result.");
  }
}

void XmlLocalTWPolMgr::elementValue(const std::string& value) {
  if (m_currentElement.empty())
    return;
  if (m_currentElement == kFipsMode) {
    m_documentFips = IsTrue(value);
    return;
  }
  for (const FlagKey& key : kFlagKeys) {
    if (m_currentElement != key.element)
      continue;
    if (key.needsUpdatePolicy && !m_inUpdatePolicy) {
      LogDebugMessage(kElementValueLogName, __FILE__, __LINE__, LOG_LEVEL_W, "%s",
                      kStructureWarning);
      return;
    }
    (m_policyInfo.*key.setter)(IsTrue(value));
    return;
  }
  for (const ExclusionKey& key : kExclusionKeys) {
    if (m_currentElement == key.element) {
      if (IsTrue(value))
        m_policyInfo.addExcludedCertStores(key.bits);
      return;
    }
  }
  if (m_currentElement == kServerName) {
    if (!m_inAuthorizedServerList) {
      LogDebugMessage(kElementValueLogName, __FILE__, __LINE__, LOG_LEVEL_W, "%s",
                      kStructureWarning);
      return;
    }
    m_policyInfo.addAuthorizedServer(value);
  } else if (m_currentElement == kRestrictPreferenceCaching) {
    setPreferenceCaching(value);
  } else if (m_currentElement == kRestrictTunnelProtocols) {
    setTunnelProtocols(value);
  }
}

void XmlLocalTWPolMgr::setPreferenceCaching(const std::string& value) {
  PreferenceCachingBits bits = m_policyInfo.getRestrictPreferenceCaching();
  for (const std::string& token : CStringUtils::splitString(value, ',')) {
    const auto found = kPreferenceCachingTokens.find(token);
    const uint32_t bit = found == kPreferenceCachingTokens.end() ? 0 : found->second;
    if (bit == PREFERENCE_CACHING_FALSE) {
      // "false" (or an unknown token) ends the list and leaves only bit 0.
      bits.reset();
      bits.set(PREFERENCE_CACHING_FALSE);
      break;
    }
    bits.set(bit);
  }
  m_policyInfo.setRestrictPreferenceCaching(bits);
}

void XmlLocalTWPolMgr::setTunnelProtocols(const std::string& value) {
  if (value == "false")
    m_policyInfo.setRestrictTunnelProtocols(TUNNEL_PROTOCOLS_UNRESTRICTED);
  else if (value == "tls")
    m_policyInfo.setRestrictTunnelProtocols(TUNNEL_PROTOCOLS_TLS);
  else if (value == "ipsec")
    m_policyInfo.setRestrictTunnelProtocols(TUNNEL_PROTOCOLS_IPSEC);
}
