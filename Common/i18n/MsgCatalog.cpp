#include "Common/i18n/MsgCatalog.h"

#include <locale.h>

#include <cctype>
#include <cstring>
#include <exception>
#include <locale>

#include "Common/Log/Log.h"
#include "Common/Log/ManualLock.h"
#include "Common/Xml/XmlLocalTWPolMgr.h"
#include "Common/i18n/MoCatalog.h"

namespace {

const char kLocalizationFolder[] = "l10n";
const char kForceSetupMessage[] = "DummyMessageToForceMessageCatSetup";

// Process-wide state, read and written only under CatalogLock().
bool g_initialized = false;
bool g_bypassDefaultLocalization = false;
std::string& CurrentLocale() {
  static std::string locale;
  return locale;
}
std::string& CurrentCatalog() {
  static std::string catalog;
  return catalog;
}

CManualLock& CatalogLock() {
  static CManualLock lock(500);
  return lock;
}

}  // namespace

std::string CStorageCatalogFolders::localizationPath() const {
  return MsgCatalog::getLocalizationPath();
}

std::string CStorageCatalogFolders::embeddedLocalizationPath() const {
  return MsgCatalog::getEmbeddedLocalizationPath();
}

void MsgCatalog::getMessage(const char* message, std::string& out) {
  getMessage(message, out, CStorageCatalogFolders());
}

void MsgCatalog::getMessage(const char* message, std::string& out, const ICatalogFolders& folders) {
  CManualLockGuard guard(CatalogLock());
  out.clear();
  if (message == nullptr) {
    KLOG_E("Error getting the translated message. NULL pointer.");
    return;
  }
  if (message[0] == '\0')
    return;
  if (!g_initialized) {
    std::string locale;
    initMsgCatalog(locale, folders);
    g_initialized = true;
  }
  const std::string& locale = CurrentLocale();
  const char* result = intl::dcigettext(nullptr, message, message, 1, LC_MESSAGES, locale.c_str());
  if (!g_bypassDefaultLocalization && result != nullptr && strcmp(result, message) == 0)
    result = intl::dcigettext(kFallbackDomain, message, message, 1, LC_MESSAGES, locale.c_str());
  out = result != nullptr ? result : message;
}

void MsgCatalog::initMsgCatalog(std::string& locale) {
  initMsgCatalog(locale, CStorageCatalogFolders());
}

void MsgCatalog::initMsgCatalog(std::string& locale, const ICatalogFolders& folders) {
  CManualLockGuard guard(CatalogLock());
  {
    CInstanceSmartPtr<XmlLocalTWPolMgr> policy;
    if (policy.IsNull()) {
      KLOG_E("Failed to get a XmlLocalTWPolMgr instance");
    } else {
      const LocalTWPolicyInfo info = policy->getLocalPolicyInfo();
      g_bypassDefaultLocalization = info.getBypassDefaultLocalization();
      KLOG_I("Bypass Default Localization is set to %s",
             g_bypassDefaultLocalization ? "true" : "false");
      if (g_bypassDefaultLocalization) {
        // The fall-back domain is not even bound.
        init(kProductDomain, "", locale, folders);
        return;
      }
    }
  }
  init(kProductDomain, kFallbackDomain, locale, folders);
}

void MsgCatalog::init(const std::string& catalog, const std::string& embeddedCatalog,
                      std::string& locale) {
  init(catalog, embeddedCatalog, locale, CStorageCatalogFolders());
}

void MsgCatalog::init(const std::string& catalog, const std::string& embeddedCatalog,
                      std::string& locale, const ICatalogFolders& folders) {
  CManualLockGuard guard(CatalogLock());
  if (locale.empty())
    getLangCode(locale);
  g_initialized = true;
  if (!setCatalog(catalog, embeddedCatalog, folders))
    KLOG_E("Error setting the translation catalog %s.", catalog.c_str());
  CurrentLocale() = locale;
  KLOG_I("initialized catalog: %s with locale: %s", catalog.c_str(), locale.c_str());
}

bool MsgCatalog::setCatalog(const std::string& catalog, const std::string& embeddedCatalog) {
  return setCatalog(catalog, embeddedCatalog, CStorageCatalogFolders());
}

bool MsgCatalog::setCatalog(const std::string& catalog, const std::string& embeddedCatalog,
                            const ICatalogFolders& folders) {
  CManualLockGuard guard(CatalogLock());
  if (catalog == CurrentCatalog())
    return true;
  CurrentCatalog() = catalog;
  setlocale(LC_ALL, "");
  intl::bindtextdomain(catalog.c_str(), folders.localizationPath().c_str());
  intl::textdomain(catalog.c_str());
  if (!embeddedCatalog.empty())
    intl::bindtextdomain(embeddedCatalog.c_str(), folders.embeddedLocalizationPath().c_str());

  std::string charset = intl::textdomain_charset(nullptr);
  if (charset.empty()) {
    // Nothing loaded yet: a lookup loads the catalogue of the process locale.
    intl::gettext(kForceSetupMessage);
    charset = intl::textdomain_charset(nullptr);
    if (charset.empty())
      return true;  // no catalogue for this locale is no fault
  }
  if (charset == "utf-8") {
    KLOG_I("The character set is utf-8.");
    return true;
  }
  KLOG_E("The specified character set <%s> is unsupported.", charset.c_str());
  return false;
}

void MsgCatalog::getLangCode(std::string& code) {
  try {
    code = std::locale("").name();
  } catch (const std::exception& error) {
    KLOG_E("%s", error.what());
  }
  code = langCodeOf(code);
}

std::string MsgCatalog::langCodeOf(const std::string& localeName) {
  std::string code = localeName;
  for (char& c : code)
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  const size_t dot = code.find('.');
  if (dot == std::string::npos)
    return code;
  code.erase(dot);
  for (char& c : code) {
    if (c == '_')
      c = '-';
  }
  return code;
}

std::string MsgCatalog::getLocalizationPath() {
  CInstanceSmartPtr<CStoragePath> storagePath;
  return getLocalizationPath(storagePath);
}

std::string MsgCatalog::getLocalizationPath(const CInstanceSmartPtr<CStoragePath>& storagePath) {
  if (storagePath.IsNull()) {
    KLOG_RC(LOG_LEVEL_E, "CInstanceSmartPtr<StoragePath>", CSTORAGEPATH_ERROR_NO_INSTANCE);
    return std::string();
  }
  return storagePath->GetInstallPath() + kLocalizationFolder;
}

std::string MsgCatalog::getEmbeddedLocalizationPath() {
  CInstanceSmartPtr<CStoragePath> storagePath;
  return getEmbeddedLocalizationPath(storagePath);
}

std::string MsgCatalog::getEmbeddedLocalizationPath(
    const CInstanceSmartPtr<CStoragePath>& storagePath) {
  if (storagePath.IsNull()) {
    KLOG_RC(LOG_LEVEL_E, "CInstanceSmartPtr<StoragePath>", CSTORAGEPATH_ERROR_NO_INSTANCE);
    return std::string();
  }
  return storagePath->GetResourcesPath() + kLocalizationFolder;
}

std::string MsgCatalog::getCurrentLocale() {
  CManualLockGuard guard(CatalogLock());
  return CurrentLocale();
}

std::string MsgCatalog::getCurrentCatalog() {
  CManualLockGuard guard(CatalogLock());
  return CurrentCatalog();
}

bool MsgCatalog::isInitialized() {
  CManualLockGuard guard(CatalogLock());
  return g_initialized;
}

bool MsgCatalog::isBypassDefaultLocalization() {
  CManualLockGuard guard(CatalogLock());
  return g_bypassDefaultLocalization;
}
