// MsgCatalog: turns an English message into the user's language.
//
// Translations come from compiled message catalogues read by the tool's own
// catalogue layer (MoCatalog.h). The product domain "Tidewalker" lives below
// the install root's "l10n" folder; unless the local policy bypasses it, a
// message that the product domain lacks is looked up once more in the
// fall-back domain "TesselClientDefault" below the resources' "l10n" folder.
// Every failure degrades to the English text given: no operation reports an
// error to the reader of a message, and the log holds the traces.
//
// The catalogue is set up lazily, by the first getMessage. All state is
// process-wide and guarded by one recursive lock, so any thread may call;
// the catalogue layer below is only reached under that lock.
#ifndef COMMON_I18N_MSGCATALOG_H_
#define COMMON_I18N_MSGCATALOG_H_

#include <string>

#include "Common/Utility/InstanceSmartPtr.h"
#include "Common/Utility/StoragePath.h"

// Where the catalogue folders are. Production asks CStoragePath; the
// folder-taking overloads of MsgCatalog let a caller choose.
class ICatalogFolders {
 public:
  virtual ~ICatalogFolders() = default;
  // The folder of the product domain.
  virtual std::string localizationPath() const = 0;
  // The folder of the fall-back domain.
  virtual std::string embeddedLocalizationPath() const = 0;
};

// The folders below the install root, asked for only when needed.
class CStorageCatalogFolders : public ICatalogFolders {
 public:
  std::string localizationPath() const override;
  std::string embeddedLocalizationPath() const override;
};

// Two fixed folders.
class CFixedCatalogFolders : public ICatalogFolders {
 public:
  CFixedCatalogFolders(const std::string& localization, const std::string& embedded)
      : m_localization(localization), m_embedded(embedded) {}
  std::string localizationPath() const override { return m_localization; }
  std::string embeddedLocalizationPath() const override { return m_embedded; }

 private:
  std::string m_localization;
  std::string m_embedded;
};

class MsgCatalog {
 public:
  static constexpr const char* kProductDomain = "Tidewalker";
  static constexpr const char* kFallbackDomain = "TesselClientDefault";

  virtual ~MsgCatalog() = default;

  // `out` receives the translation of `message`, or `message` itself when
  // there is none; nothing for a null (logged) or empty message. The first
  // call with a message sets the catalogue up.
  static void getMessage(const char* message, std::string& out);
  static void getMessage(const char* message, std::string& out, const ICatalogFolders& folders);

  // Reads BypassDefaultLocalization from the local policy manager and calls
  // init for the product domain, with the fall-back domain unless bypassed.
  // An empty `locale` is filled in by init.
  static void initMsgCatalog(std::string& locale);
  static void initMsgCatalog(std::string& locale, const ICatalogFolders& folders);

  // Fills an empty `locale` with getLangCode, sets the catalogues and makes
  // `locale` the one that lookups use.
  static void init(const std::string& catalog, const std::string& embeddedCatalog,
                   std::string& locale);
  static void init(const std::string& catalog, const std::string& embeddedCatalog,
                   std::string& locale, const ICatalogFolders& folders);

  // Binds and selects `catalog` (and binds `embeddedCatalog` when not
  // empty). True when the catalogue is already the current one, when no
  // catalogue exists for the process locale, or when its charset is exactly
  // "utf-8"; false for any other charset, though the domain stays bound.
  static bool setCatalog(const std::string& catalog, const std::string& embeddedCatalog);
  static bool setCatalog(const std::string& catalog, const std::string& embeddedCatalog,
                         const ICatalogFolders& folders);

  // The language code of the environment's locale, by langCodeOf. When the
  // environment names a locale that can't be built, the failure is logged
  // and the rules apply to what `code` held.
  static void getLangCode(std::string& code);
  // The rules of getLangCode: lower-cased, and only when it holds a ".",
  // cut at the first "." with every "_" made "-". So "en_US.UTF-8" gives
  // "en-us", "en_US" gives "en_us" and "C" gives "c".
  static std::string langCodeOf(const std::string& localeName);

  // GetInstallPath + "l10n", or "" (logged) without a storage path.
  static std::string getLocalizationPath();
  static std::string getLocalizationPath(const CInstanceSmartPtr<CStoragePath>& storagePath);
  // GetResourcesPath + "l10n", or "" (logged) without a storage path.
  static std::string getEmbeddedLocalizationPath();
  static std::string getEmbeddedLocalizationPath(
      const CInstanceSmartPtr<CStoragePath>& storagePath);

  // The locale code that lookups use, and the current catalogue.
  static std::string getCurrentLocale();
  static std::string getCurrentCatalog();
  static bool isInitialized();
  static bool isBypassDefaultLocalization();
};

#endif  // COMMON_I18N_MSGCATALOG_H_
