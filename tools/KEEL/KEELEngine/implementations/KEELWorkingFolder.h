// KEELWorkingFolder: the folder under /tmp that one bundle run works in,
// made by this run itself and private to the running user.
//
// /tmp is shared with every user of the host, and the run copies files only
// root may read into this folder. A name another user could have made in
// advance (as a folder of theirs, or as a link) must never be adopted, and
// two runs at once must never share one folder. So the folder is always
// made afresh with mode 0700; a name that already exists is passed over for
// another fresh one; the plain name is cleared only when it is a real folder
// of the running user that no other run holds; and the run holds an
// advisory lock (flock) on its folder for as long as this object lives, so
// that a run started meanwhile does not clear it away.
//
// Nobody can deny a run its folder by making names in advance: once
// kMaxFreshNames fresh names were taken, the folder gets the plain name and
// a suffix of 64 random bits from the system's random source, which no one
// can make in advance. That same lock tells a later run which folders of
// this form belong to runs that are gone: a folder of the running user
// that no one holds a lock on is a leftover, and removeLeftovers takes it
// away.
//
// The engine owns one object per run and uses it on the main thread.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELWORKINGFOLDER_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELWORKINGFOLDER_H_

#include <string>

#include "Common/Result/ResultCode.h"

class KEELWorkingFolder {
 public:
  // How many fresh names are tried before the run gives up.
  static constexpr int kMaxFreshNames = 64;

  // Tries of a random name once the fresh names were all taken.
  static constexpr int kMaxRandomNames = 8;

  explicit KEELWorkingFolder(const std::string& plainName);
  // Releases the lock; the folder itself stays unless remove() was called.
  ~KEELWorkingFolder();
  KEELWorkingFolder(const KEELWorkingFolder&) = delete;
  KEELWorkingFolder& operator=(const KEELWorkingFolder&) = delete;

  // Clears the way under the plain name: deletes a folder left there by an
  // earlier run of this user (helperUtil::fileDeleteDirectory, whose result
  // is returned). Anything else there (a link, a file, a folder of another
  // user, a folder another run holds) is not touched and gives
  // KEELENGINE_ERROR_ACCESS_DENIED, as a missing name does.
  ResultCode clearPlainName();

  // Makes the folder: under the plain name when `tryPlainName` is set, and
  // under fresh names (plain name, "_", time stamp, "_", random number)
  // while a name is taken, up to kMaxFreshNames of them; then under random
  // names (plain name, "_", 16 hexadecimal digits). 0 once made, or
  // KEELENGINE_ERROR_ACCESS_DENIED.
  ResultCode make(bool tryPlainName);

  // Removes the folder made, with everything below it and without
  // following a link, while the lock still keeps other runs off it. True
  // when it is gone (or none was made).
  bool remove();

  // Removes the folders of this name form (other than the plain name,
  // which clearPlainName deals with) that belong to the running user and
  // that no run holds. Links and other users' entries are never touched.
  // Returns how many such folders are held by runs still alive.
  int removeLeftovers();

  // Whether `name` (no folder part) is the plain name's, or one made from
  // it by this class: the plain name followed by "_" and more.
  static bool isWorkingFolderName(const std::string& plainBase, const std::string& name);

  // The folder made, or empty before make succeeded.
  const std::string& path() const { return m_path; }
  // Whether the fresh names were all taken and a random one was used.
  bool tookRandomName() const { return m_tookRandomName; }

 private:
  // The result of one attempt at a name.
  enum class Attempt { kMade, kTaken, kFailed };
  Attempt makeUnder(const std::string& candidate);
  std::string freshName() const;
  std::string randomName() const;

  std::string m_plainName;
  std::string m_path;
  int m_lockFd = -1;
  bool m_tookRandomName = false;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_KEELWORKINGFOLDER_H_
