// The local policy: an optional XML document beside the client with which an
// administrator restricts what the client family may do on this host.
//
// LocalTWPolicyInfo is the parsed record. XmlLocalTWPolMgr is the family's
// shared manager: a reference-counted singleton that reads the document
// through the SAX layer (it is the parser's event sink) into its record and
// settles the process's FIPS mode. Readers get the record only as a copy.
//
// Threads: creation, acquisition and release take one process-wide lock.
// The record itself has no lock: it is filled during start-up, before other
// threads exist, and read afterwards through copies.
#ifndef COMMON_XML_XMLLOCALTWPOLMGR_H_
#define COMMON_XML_XMLLOCALTWPOLMGR_H_

#include <bitset>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"
#include "Common/Xml/XmlMgr.h"

// Bits of RestrictPreferenceCaching, by the tokens that set them.
enum PreferenceCachingBit : uint32_t {
  PREFERENCE_CACHING_FALSE = 0,
  PREFERENCE_CACHING_CREDENTIALS = 1,
  PREFERENCE_CACHING_THUMBPRINTS = 2,
  PREFERENCE_CACHING_CREDENTIALS_AND_THUMBPRINTS = 3,
  PREFERENCE_CACHING_AUTOMATIC_SERVER_SELECTION = 4,
  PREFERENCE_CACHING_ALL = 5,
};
typedef std::bitset<8> PreferenceCachingBits;

// Values of RestrictTunnelProtocols.
enum TunnelProtocolRestriction : uint32_t {
  TUNNEL_PROTOCOLS_UNRESTRICTED = 0,  // "false"
  TUNNEL_PROTOCOLS_TLS = 1,           // "tls"
  TUNNEL_PROTOCOLS_IPSEC = 2,         // "ipsec"
};

// Bits of the excluded certificate stores, added by the Exclude... keys.
constexpr uint32_t kExcludeFirefoxNSSCertStore = 0x8;
constexpr uint32_t kExcludePemFileCertStore = 0xC00;
constexpr uint32_t kExcludeWinNativeCertStore = 0xC3;
constexpr uint32_t kExcludeMacNativeCertStore = 0x2104;

// The parsed policy. A fresh or reset record holds the defaults: every flag
// false except the Allow...FromAnyServer flags, which are true; preference
// caching with only bit 0 set; no tunnel restriction, no excluded store, no
// authorized server, no version.
class LocalTWPolicyInfo {
 public:
  LocalTWPolicyInfo();
  LocalTWPolicyInfo(const LocalTWPolicyInfo& other);
  virtual ~LocalTWPolicyInfo();
  virtual LocalTWPolicyInfo& operator=(const LocalTWPolicyInfo& other);

  void ResetToDefaults();

  // Getters, one per field.
  const std::string& getVersion() const { return m_version; }
  bool getFipsMode() const { return m_fipsMode; }
  bool getBypassDownloader() const { return m_bypassDownloader; }
  bool getBypassDefaultLocalization() const { return m_bypassDefaultLocalization; }
  bool getRestrictScriptWebDeploy() const { return m_restrictScriptWebDeploy; }
  bool getRestrictHelpWebDeploy() const { return m_restrictHelpWebDeploy; }
  bool getRestrictResourceWebDeploy() const { return m_restrictResourceWebDeploy; }
  bool getRestrictLocalizationWebDeploy() const { return m_restrictLocalizationWebDeploy; }
  bool getRestrictWebLaunch() const { return m_restrictWebLaunch; }
  bool getStrictCertificateTrust() const { return m_strictCertificateTrust; }
  bool getEnableCRLCheck() const { return m_enableCRLCheck; }
  bool getOCSPRevocation() const { return m_ocspRevocation; }
  const PreferenceCachingBits& getRestrictPreferenceCaching() const {
    return m_restrictPreferenceCaching;
  }
  uint32_t getRestrictTunnelProtocols() const { return m_restrictTunnelProtocols; }
  uint32_t getExcludedCertStores() const { return m_excludedCertStores; }
  bool getRestrictServerCertStore() const { return m_restrictServerCertStore; }
  bool getAllowSoftwareUpdatesFromAnyServer() const { return m_allowSoftwareUpdatesFromAnyServer; }
  bool getAllowComplianceModuleUpdatesFromAnyServer() const {
    return m_allowComplianceModuleUpdatesFromAnyServer;
  }
  bool getAllowVPNProfileUpdatesFromAnyServer() const {
    return m_allowVPNProfileUpdatesFromAnyServer;
  }
  bool getAllowManagementVPNProfileUpdatesFromAnyServer() const {
    return m_allowManagementVPNProfileUpdatesFromAnyServer;
  }
  bool getAllowNACProfileUpdatesFromAnyServer() const {
    return m_allowNACProfileUpdatesFromAnyServer;
  }
  bool getAllowServiceProfileUpdatesFromAnyServer() const {
    return m_allowServiceProfileUpdatesFromAnyServer;
  }
  bool getAllowScriptUpdatesFromAnyServer() const { return m_allowScriptUpdatesFromAnyServer; }
  bool getAllowHelpUpdatesFromAnyServer() const { return m_allowHelpUpdatesFromAnyServer; }
  bool getAllowResourceUpdatesFromAnyServer() const { return m_allowResourceUpdatesFromAnyServer; }
  bool getAllowLocalizationUpdatesFromAnyServer() const {
    return m_allowLocalizationUpdatesFromAnyServer;
  }
  const std::vector<std::string>& getAuthorizedServerList() const { return m_authorizedServers; }

  // The excluded stores, one by one: all bits of the store are set.
  bool isFirefoxNSSCertStoreExcluded() const;
  bool isPemFileCertStoreExcluded() const;
  bool isWinNativeCertStoreExcluded() const;
  bool isMacNativeCertStoreExcluded() const;
  // RestrictServerCertStore, or else StrictCertificateTrust.
  bool isServerCertStoreRestricted() const;

  // Setters, for the manager that fills the record.
  void setVersion(const std::string& version) { m_version = version; }
  void setFipsMode(bool value) { m_fipsMode = value; }
  void setBypassDownloader(bool value) { m_bypassDownloader = value; }
  void setBypassDefaultLocalization(bool value) { m_bypassDefaultLocalization = value; }
  void setRestrictScriptWebDeploy(bool value) { m_restrictScriptWebDeploy = value; }
  void setRestrictHelpWebDeploy(bool value) { m_restrictHelpWebDeploy = value; }
  void setRestrictResourceWebDeploy(bool value) { m_restrictResourceWebDeploy = value; }
  void setRestrictLocalizationWebDeploy(bool value) { m_restrictLocalizationWebDeploy = value; }
  void setRestrictWebLaunch(bool value) { m_restrictWebLaunch = value; }
  void setStrictCertificateTrust(bool value) { m_strictCertificateTrust = value; }
  void setEnableCRLCheck(bool value) { m_enableCRLCheck = value; }
  void setOCSPRevocation(bool value) { m_ocspRevocation = value; }
  void setRestrictPreferenceCaching(const PreferenceCachingBits& bits) {
    m_restrictPreferenceCaching = bits;
  }
  void setRestrictTunnelProtocols(uint32_t value) { m_restrictTunnelProtocols = value; }
  // Bits are only ever added.
  void addExcludedCertStores(uint32_t bits) { m_excludedCertStores |= bits; }
  void setRestrictServerCertStore(bool value) { m_restrictServerCertStore = value; }
  void setAllowSoftwareUpdatesFromAnyServer(bool value) {
    m_allowSoftwareUpdatesFromAnyServer = value;
  }
  void setAllowComplianceModuleUpdatesFromAnyServer(bool value) {
    m_allowComplianceModuleUpdatesFromAnyServer = value;
  }
  void setAllowVPNProfileUpdatesFromAnyServer(bool value) {
    m_allowVPNProfileUpdatesFromAnyServer = value;
  }
  void setAllowManagementVPNProfileUpdatesFromAnyServer(bool value) {
    m_allowManagementVPNProfileUpdatesFromAnyServer = value;
  }
  void setAllowNACProfileUpdatesFromAnyServer(bool value) {
    m_allowNACProfileUpdatesFromAnyServer = value;
  }
  void setAllowServiceProfileUpdatesFromAnyServer(bool value) {
    m_allowServiceProfileUpdatesFromAnyServer = value;
  }
  void setAllowScriptUpdatesFromAnyServer(bool value) { m_allowScriptUpdatesFromAnyServer = value; }
  void setAllowHelpUpdatesFromAnyServer(bool value) { m_allowHelpUpdatesFromAnyServer = value; }
  void setAllowResourceUpdatesFromAnyServer(bool value) {
    m_allowResourceUpdatesFromAnyServer = value;
  }
  void setAllowLocalizationUpdatesFromAnyServer(bool value) {
    m_allowLocalizationUpdatesFromAnyServer = value;
  }
  void addAuthorizedServer(const std::string& name) { m_authorizedServers.push_back(name); }

 private:
  std::string m_version;
  bool m_fipsMode;
  bool m_bypassDownloader;
  bool m_bypassDefaultLocalization;
  bool m_restrictScriptWebDeploy;
  bool m_restrictHelpWebDeploy;
  bool m_restrictResourceWebDeploy;
  bool m_restrictLocalizationWebDeploy;
  bool m_restrictWebLaunch;
  bool m_strictCertificateTrust;
  bool m_enableCRLCheck;
  bool m_ocspRevocation;
  PreferenceCachingBits m_restrictPreferenceCaching;
  uint32_t m_restrictTunnelProtocols;
  uint32_t m_excludedCertStores;
  bool m_restrictServerCertStore;
  bool m_allowSoftwareUpdatesFromAnyServer;
  bool m_allowComplianceModuleUpdatesFromAnyServer;
  bool m_allowVPNProfileUpdatesFromAnyServer;
  bool m_allowManagementVPNProfileUpdatesFromAnyServer;
  bool m_allowNACProfileUpdatesFromAnyServer;
  bool m_allowServiceProfileUpdatesFromAnyServer;
  bool m_allowScriptUpdatesFromAnyServer;
  bool m_allowHelpUpdatesFromAnyServer;
  bool m_allowResourceUpdatesFromAnyServer;
  bool m_allowLocalizationUpdatesFromAnyServer;
  std::vector<std::string> m_authorizedServers;
};

// FIPS state of the process: settled by the first successful load.
enum FipsState : uint32_t {
  FIPS_STATE_NOT_SETTLED = 0,
  FIPS_STATE_ENABLED = 1,
  FIPS_STATE_DISABLED = 2,
};

template <typename T>
class CSingletonRegistry;

class XmlLocalTWPolMgr : public XmlMgr {
 public:
  // The document's name, in the folder of getLocalSecurityPolicyDir.
  static constexpr const char* kPolicyFileName = "TidewalkerLocalPolicy.xml";
  // The client version that a document's "twversion" is compared with.
  static constexpr const char* kClientVersion = "5.1.9.113";

  // Lifetime.

  // Makes the manager with a count of 1 and hands it out; with an instance
  // already there (or references still counted),
  // XMLLOCALTWPOLMGR_ERROR_ALREADY_INITIALIZED and *instance stays null: a
  // second user must call AcquireInstance.
  static ResultCode CreateSingletonInstance(XmlLocalTWPolMgr** instance);
  // The instance with one more reference, or null.
  static XmlLocalTWPolMgr* AcquireInstance();
  // Drops one reference of the stored instance and destroys it with the
  // last one. A pointer that is not the stored instance is destroyed at once.
  static void ReleaseInstance(XmlLocalTWPolMgr* instance);
  // The acquisition count, for leak checks.
  static uint32_t GetAcquisitionCount();

  // Loading.

  // Resets the record and reads the document in the install folder. No
  // document: 0 and no log line. A document that fails to parse: the
  // parser's code, logged; the record keeps what was read before the fault.
  // After a good parse the FIPS state is settled (first load only) and
  // "FIPS mode is enabled." or "... disabled." is logged.
  ResultCode LoadLocalTidewalkerPolicy();
  // The same for the document in `folder` (which ends in "/").
  ResultCode LoadLocalTidewalkerPolicy(const std::string& folder);

  // The folder of the document: the install root. Without a CStoragePath
  // instance: CSTORAGEPATH_ERROR_NO_INSTANCE, logged, and an empty folder.
  static ResultCode getLocalSecurityPolicyDir(std::string& dir);
  // The same, logging a failure once more.
  static ResultCode getLocalSecurityPolicy(std::string& dir);
  // The folder and the document's name.
  static ResultCode GetLocalPolicyLocation(std::string& dir, std::string& fileName);

  // Readers.

  // A copy of the record.
  LocalTWPolicyInfo getLocalPolicyInfo() const { return m_policyInfo; }
  FipsState getFipsState() const { return m_fipsState; }
  bool isFipsModeEnabled() const { return m_fipsState == FIPS_STATE_ENABLED; }
  // Whether the last load read another FIPS value than the settled one.
  bool isFipsModeChanged() const { return m_fipsChanged; }

  // Parser events (XmlMgr).
  void startElement(const std::string& name) override;
  void endElement(const std::string& name) override;
  void elementValue(const std::string& value) override;
  void attribute(const std::string& name, const std::string& value) override;

 private:
  // The last release deletes the instance.
  friend class CSingletonRegistry<XmlLocalTWPolMgr>;

  XmlLocalTWPolMgr();
  ~XmlLocalTWPolMgr() override;
  XmlLocalTWPolMgr(const XmlLocalTWPolMgr&) = delete;
  XmlLocalTWPolMgr& operator=(const XmlLocalTWPolMgr&) = delete;

  void setPreferenceCaching(const std::string& value);
  void setTunnelProtocols(const std::string& value);

  bool m_documentFips;  // the raw value of the last document
  FipsState m_fipsState;
  bool m_fipsChanged;
  std::string m_currentElement;
  bool m_inAuthorizedServerList;
  bool m_inUpdatePolicy;
  LocalTWPolicyInfo m_policyInfo;
};

#endif  // COMMON_XML_XMLLOCALTWPOLMGR_H_
