// TrustedPath: reaching a file or folder by path the way a program running
// as root must when other users may own folders and links on that path.
//
// A path string names whatever the file system shows at the moment it is
// resolved, and any user who can write a folder on the way can change that:
// swap a folder for a link to a root-only folder, plant a link at a log's
// name, put a FIFO where a file was. So the tool never hands such a path to
// open(), stat() or unlink() whole. It walks it from an opened folder, one
// component at a time, with openat(O_NOFOLLOW), and decides at each step
// whether the step can be trusted:
//
//  - A symbolic link is followed only when it is owned by root or by the
//    owner of the folder it sits in (the kernel's rule for protected links
//    in shared folders, applied everywhere).
//  - Once the walk has passed through a folder or a link owned by a user
//    other than root (that user "steers" the rest of the walk), every later
//    folder and link must belong to that same user. A user's link or folder
//    that leads into a folder of root's or of a third user is refused.
//  - A file reached while a user steers the walk must belong to that user,
//    or be readable by every user: nothing the steering user could not read
//    is handed out.
//  - Only the last component is opened for use, and only after fstat shows
//    the kind that was asked for (a regular file, a folder). Files are
//    opened O_NONBLOCK, so a FIFO swapped in can never block the run.
//
// How the walk goes (what the rule above leaves open):
//
//  - A path from "/" starts at the root folder, which counts as a folder
//    passed; a relative path starts at the current folder, and the *At
//    forms at the folder given, neither of which is looked at: the caller
//    chose it.
//  - ".." goes back to the folder the walk came from: the walk keeps the
//    descriptors of the folders it passed, so ".." can never lead anywhere
//    the walk has not been (a folder moved away meanwhile does not take the
//    walk with it). Since a link's target is walked on from the link's
//    folder, this is the folder the kernel would give. Above the folder the
//    walk started in, ".." opens the real parent ("/.." is "/"). A folder
//    reached by ".." is checked again against the user steering the walk.
//  - The steering user never changes back: a ".." does not give the walk
//    back to root. A user's link is therefore followed only while what it
//    leads to stays within that user's own folders (a relative link such as
//    current.log -> 2024/app.log); a link naming a path from "/" passes
//    root's folders and is refused.
//  - At most 40 links are followed in one walk (ELOOP beyond).
//  - Each component is first opened O_PATH | O_NOFOLLOW and checked with
//    fstat; a link's target is read from that same descriptor, and a file
//    reopened for reading must still be the inode that was checked, so no
//    swap between check and use is ever trusted.
//
// A refusal carries an errno-style code (ELOOP for a link not followed,
// EPERM for an untrusted step, EINVAL for the wrong kind of file, or what
// the system answered) and a reason in words for the summary.
//
// Every function is thread-safe: a walk holds only its own descriptors.
#ifndef COMMON_UTILITY_TRUSTEDPATH_H_
#define COMMON_UTILITY_TRUSTEDPATH_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "Common/Utility/ScopedHandles.h"

// The outcome of one walk.
struct TrustedPathResult {
  ScopedFd fd;          // the opened component; invalid on refusal
  struct stat info {};  // fstat of `fd` when it is valid
  int error = 0;        // errno-style code when refused, else 0
  std::string reason;   // the refusal in words, for the summary and the log
  // The user who steers the walk at its end: 0 when only root's folders and
  // links were passed.
  uid_t steeringUser = 0;

  bool ok() const { return fd.valid(); }
};

// What the last component of a walk must be, and how it is opened.
enum class TrustedKind {
  kFile,          // a regular file, O_RDONLY | O_NONBLOCK
  kFolder,        // a folder, O_RDONLY | O_DIRECTORY
  kFileOrFolder,  // either of the two, opened as above
  kAny,           // whatever it is, as an O_PATH descriptor: for listings
                  // that need its kind and times only
};

class TrustedPath {
 public:
  TrustedPath() = delete;

  // The general forms of the calls below: walks `path` from "/" or the
  // current folder, or `path` (one name or a relative path) from `folder`
  // whose walk gave `steeringUser`.
  static TrustedPathResult open(const std::string& path, TrustedKind kind);
  static TrustedPathResult openAt(int folder, uid_t steeringUser, const std::string& path,
                                  TrustedKind kind);

  // Opens the folder `path` names (O_RDONLY | O_DIRECTORY | O_CLOEXEC). A
  // relative path starts at the current folder.
  static TrustedPathResult openFolder(const std::string& path);

  // Opens the folder that holds the last component of `path`, and sets
  // `leaf` to that component (never empty, never "." or ".."). Refused for
  // a path that names no component ("/", "", a path ending in "/").
  static TrustedPathResult openParent(const std::string& path, std::string& leaf);

  // Opens a regular file for reading (O_RDONLY | O_NONBLOCK | O_NOFOLLOW),
  // by `path` or as `name` inside the opened folder `folder` whose walk gave
  // `steeringUser`. Anything else (a folder, a FIFO, a device, a socket, an
  // untrusted link) is refused.
  static TrustedPathResult openFileForReading(const std::string& path);
  static TrustedPathResult openFileForReadingAt(int folder, uid_t steeringUser,
                                                const std::string& name);

  // Opens `name` inside `folder` as a folder to walk into, with the same
  // rules (a trusted link there is followed).
  static TrustedPathResult openFolderAt(int folder, uid_t steeringUser, const std::string& name);

  // Whether a component owned by `owner` (of kind `mode`) may be used
  // while `steeringUser` steers the walk. The rule above, for callers that
  // list a folder and check its entries themselves.
  static bool mayUse(uid_t steeringUser, uid_t owner, mode_t mode);
};

#endif  // COMMON_UTILITY_TRUSTEDPATH_H_
