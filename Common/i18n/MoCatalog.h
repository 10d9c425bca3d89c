// The tool's own small message-catalogue layer: text domains, their folders
// and the lookup of a message in a compiled ".mo" catalogue.
//
// The functions mirror the C library's functions of the same names, inside
// the namespace `intl` so that they never stand in for (or clash with) the
// C library's. A domain is bound to a folder; its catalogue for a locale is
// <folder>/<locale>/<category>/<domain>.mo, at most 1 MiB, mapped read-only
// and kept mapped for the rest of the process, so that a translation is
// handed out as a pointer into the mapping. There is no character-set
// conversion: a translation comes back in the bytes of the file. Returned
// texts must not be changed or freed.
//
// Process-wide state without a lock of its own: the bindings (newest first),
// the current text domain and the cache of the last lookup. Callers
// serialise; in the tool, MsgCatalog calls these under its lock.
#ifndef COMMON_I18N_MOCATALOG_H_
#define COMMON_I18N_MOCATALOG_H_

#include <cstddef>
#include <string>

namespace intl {

// The longest domain, folder, locale or path text, terminator included.
constexpr size_t kTextLimit = 4096;
// A larger catalogue file is not read.
constexpr size_t kMaxCatalogSize = 1048576;
// The domain in use before any is chosen, and after an empty choice.
extern const char kDefaultDomain[];

// Null returns the current text domain; "" selects kDefaultDomain; anything
// else becomes the current domain, cut to 4095 characters. Returns the
// current domain.
const char* textdomain(const char* domainName);

// Binds `domainName` to the absolute folder `directory`. A domain bound
// before gets the new folder and must load its catalogue again. Returns the
// domain, or null for a null or empty domain, a null, relative or too long
// folder, or a too long domain.
const char* bindtextdomain(const char* domainName, const char* directory);

// Character-set conversion is not offered: does nothing, returns null.
const char* bind_textdomain_codeset(const char* domainName, const char* codeset);

// The translation of `singular` in `domainName` (the current domain when
// null) for `category` (0 to 5, LC_CTYPE to LC_MESSAGES) and `locale`.
// With a null locale the search list is derived from the process locale. A
// locale holding "-" that finds no catalogue is tried once more cut at the
// "-", so "en-us" falls back to "en". When nothing is found the answer is
// `singular` if `n` is 1 and `plural` otherwise; the plural only chooses
// that fall-back.
const char* dcigettext(const char* domainName, const char* singular, const char* plural,
                       unsigned long n, int category, const char* locale);

// dcigettext in the current domain for LC_MESSAGES and the process locale.
const char* gettext(const char* message);

// The "charset=" text of the catalogue loaded for `domainName` (the current
// domain when null), or "" when none is loaded or it names none.
std::string textdomain_charset(const char* domainName);

// The colon-separated list of names under which a catalogue for the locale
// `name` is looked for, most specific first: language_territory.codeset@
// modifier, language_territory@modifier, language@modifier,
// language_territory.codeset, language_territory, the lower-cased
// language-territory, and language; a form is listed only when the name has
// all of its parts.
std::string LocaleSearchList(const std::string& name);

}  // namespace intl

#endif  // COMMON_I18N_MOCATALOG_H_
