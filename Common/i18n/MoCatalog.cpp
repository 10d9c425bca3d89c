#include "Common/i18n/MoCatalog.h"

#include <fcntl.h>
#include <locale.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <memory>

#include "Common/Utility/ScopedHandles.h"
#include "Common/i18n/MoImage.h"

namespace intl {

const char kDefaultDomain[] = "messages";

namespace {

const char* const kCategoryNames[] = {"LC_CTYPE",   "LC_NUMERIC",  "LC_TIME",
                                      "LC_COLLATE", "LC_MONETARY", "LC_MESSAGES"};

// A whole file mapped read-only; unmapped on Reset or destruction.
class CMappedFile {
 public:
  // Maps `path` if it is a regular catalogue file of at most
  // kMaxCatalogSize bytes with a known magic and revision 0.
  bool Map(const std::string& path) {
    Reset();
    ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
      return false;
    struct stat status;
    if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0 ||
        static_cast<uint64_t>(status.st_size) > kMaxCatalogSize)
      return false;
    unsigned char head[8];
    if (pread(fd.get(), head, sizeof(head), 0) != static_cast<ssize_t>(sizeof(head)) ||
        !CMoImage::AcceptsHeader(head))
      return false;
    const size_t size = static_cast<size_t>(status.st_size);
    void* data = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.get(), 0);
    if (data == MAP_FAILED)
      return false;
    m_region = MappedRegion(data, size);
    return true;
  }

  void Reset() { m_region.reset(); }

  const char* data() const { return m_region.data(); }
  size_t size() const { return m_region.size(); }

 private:
  MappedRegion m_region;
};

// One bound domain and, once loaded, its catalogue.
struct Binding {
  std::unique_ptr<Binding> next;
  std::string domain;
  std::string directory;
  CMappedFile mapping;
  CMoImage image;  // points into `mapping`
};

struct State {
  std::unique_ptr<Binding> bindings;  // newest first
  std::string textDomain = kDefaultDomain;
  // The last lookup that loaded a catalogue.
  std::string cacheDomain;
  std::string cacheCategory;
  std::string cacheLocale;
};

State& TheState() {
  static State state;
  return state;
}

Binding* FindBinding(const char* domainName) {
  for (Binding* binding = TheState().bindings.get(); binding != nullptr;
       binding = binding->next.get()) {
    if (binding->domain == domainName)
      return binding;
  }
  return nullptr;
}

bool IsFixedLocale(const std::string& name) {
  return name == "C" || name == "POSIX";
}

// Loads the binding's catalogue for the first name of the colon-separated
// `locales` that has a catalogue file. A name "C" or "POSIX" ends the search
// with failure; a name, category or domain holding "/" is passed over.
bool LoadCatalog(Binding* binding, const char* category, const std::string& locales) {
  size_t start = 0;
  while (start <= locales.size()) {
    size_t end = locales.find(':', start);
    if (end == std::string::npos)
      end = locales.size();
    const std::string name = locales.substr(start, end - start);
    start = end + 1;
    if (name.empty())
      continue;
    if (IsFixedLocale(name))
      return false;
    if (name.find('/') != std::string::npos || strchr(category, '/') != nullptr ||
        binding->domain.find('/') != std::string::npos)
      continue;
    const std::string path =
        binding->directory + "/" + name + "/" + category + "/" + binding->domain + ".mo";
    if (path.size() + 1 > kTextLimit)
      continue;
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
      continue;
    if (binding->image.IsLoaded())
      return true;
    binding->image.Clear();
    binding->mapping.Reset();
    if (binding->mapping.Map(path) &&
        binding->image.Load(binding->mapping.data(), binding->mapping.size()))
      return true;
    binding->image.Clear();
    binding->mapping.Reset();
  }
  return false;
}

}  // namespace

const char* textdomain(const char* domainName) {
  State& state = TheState();
  if (domainName == nullptr)
    return state.textDomain.c_str();
  if (domainName[0] == '\0')
    state.textDomain = kDefaultDomain;
  else
    state.textDomain.assign(domainName, strnlen(domainName, kTextLimit - 1));
  return state.textDomain.c_str();
}

const char* bindtextdomain(const char* domainName, const char* directory) {
  if (domainName == nullptr || domainName[0] == '\0' || directory == nullptr || directory[0] != '/')
    return nullptr;
  if (strnlen(directory, kTextLimit) + 1 > kTextLimit ||
      strnlen(domainName, kTextLimit) + 1 > kTextLimit)
    return nullptr;
  Binding* binding = FindBinding(domainName);
  if (binding != nullptr) {
    binding->directory = directory;
    // The old mapping stays until the next load replaces it.
    binding->image.MarkUnloaded();
    return binding->domain.c_str();
  }
  State& state = TheState();
  auto created = std::make_unique<Binding>();
  created->domain = domainName;
  created->directory = directory;
  created->next = std::move(state.bindings);
  state.bindings = std::move(created);
  return state.bindings->domain.c_str();
}

const char* bind_textdomain_codeset(const char* domainName, const char* codeset) {
  (void)domainName;
  (void)codeset;
  return nullptr;
}

const char* dcigettext(const char* domainName, const char* singular, const char* plural,
                       unsigned long n, int category, const char* locale) {
  const char* fallback = n == 1 ? singular : plural;
  if (fallback == nullptr)
    return nullptr;
  State& state = TheState();
  const std::string domain = domainName != nullptr ? domainName : state.textDomain;
  if (category < 0 || category > 5)
    return fallback;
  const char* categoryName = kCategoryNames[category];

  std::string locales;
  bool retryWithoutTerritory = false;
  if (locale != nullptr) {
    if (strnlen(locale, kTextLimit) >= kTextLimit)
      return fallback;
    locales = locale;
    retryWithoutTerritory = locales.find('-') != std::string::npos;
  } else {
    const char* current = setlocale(LC_ALL, nullptr);
    if (current == nullptr)
      current = "C";
    if (strnlen(current, kTextLimit) >= kTextLimit)
      return fallback;
    locales = LocaleSearchList(current);
  }

  Binding* binding = FindBinding(domain.c_str());
  if (binding == nullptr) {
    // Binding without a folder is refused, so the answer is the fall-back.
    if (bindtextdomain(domain.c_str(), "") == nullptr)
      return fallback;
    binding = FindBinding(domain.c_str());
  }

  const bool cached = state.cacheDomain == domain && state.cacheCategory == categoryName &&
                      state.cacheLocale == locales && binding->image.IsLoaded();
  if (!cached) {
    bool loaded = LoadCatalog(binding, categoryName, locales);
    if (!loaded && retryWithoutTerritory)
      loaded = LoadCatalog(binding, categoryName, locales.substr(0, locales.find('-')));
    if (!loaded)
      return fallback;
    state.cacheDomain = domain;
    state.cacheCategory = categoryName;
    state.cacheLocale = locales;
  }

  const int32_t index = binding->image.Find(singular);
  if (index < 0)
    return fallback;
  const char* translation = binding->image.translations()[static_cast<size_t>(index)].text;
  return translation != nullptr ? translation : singular;
}

const char* gettext(const char* message) {
  return dcigettext(nullptr, message, message, 1, LC_MESSAGES, nullptr);
}

std::string textdomain_charset(const char* domainName) {
  const Binding* binding =
      FindBinding(domainName != nullptr ? domainName : TheState().textDomain.c_str());
  if (binding == nullptr || !binding->image.IsLoaded())
    return std::string();
  return binding->image.charset();
}

std::string LocaleSearchList(const std::string& name) {
  // language[_territory][.codeset][@modifier]
  const size_t languageEnd = name.find_first_of("_.@");
  const std::string language = name.substr(0, languageEnd);
  std::string territory, codeset, modifier;
  size_t at = languageEnd;
  if (at != std::string::npos && name[at] == '_') {
    const size_t end = name.find_first_of(".@", at + 1);
    territory = name.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
    at = end;
  }
  if (at != std::string::npos && name[at] == '.') {
    const size_t end = name.find('@', at + 1);
    codeset = name.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
    at = end;
  }
  if (at != std::string::npos && name[at] == '@')
    modifier = name.substr(at + 1);

  std::string list;
  auto add = [&list](const std::string& form) {
    if (form.empty())
      return;
    if (!list.empty())
      list += ':';
    list += form;
  };
  const bool hasTerritory = !territory.empty();
  const bool hasCodeset = !codeset.empty();
  const bool hasModifier = !modifier.empty();
  if (hasTerritory && hasCodeset && hasModifier)
    add(language + "_" + territory + "." + codeset + "@" + modifier);
  if (hasTerritory && hasModifier)
    add(language + "_" + territory + "@" + modifier);
  if (hasModifier)
    add(language + "@" + modifier);
  if (hasTerritory && hasCodeset)
    add(language + "_" + territory + "." + codeset);
  if (hasTerritory) {
    add(language + "_" + territory);
    std::string lowered = language + "-" + territory;
    for (char& c : lowered)
      c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    add(lowered);
  }
  add(language);
  return list;
}

}  // namespace intl
