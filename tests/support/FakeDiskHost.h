// Fixed host places stood in for by temporary folders.
//
// FakeDiskHost: a host's disks, for the device identifier: a mount table
// whose root file system is the device "sda2", and a by-uuid folder with a
// link for another device and, unless `uuid` is empty, one named `uuid` for
// sda2. ProcAt: a process table in a folder of the test's.
#ifndef TESTS_SUPPORT_FAKEDISKHOST_H_
#define TESTS_SUPPORT_FAKEDISKHOST_H_

#include <string>

#include "Common/Utility/HostPaths.h"
#include "tests/support/TestSupport.h"

namespace keeltest {

class FakeDiskHost {
 public:
  explicit FakeDiskHost(const std::string& uuid);
  FakeDiskHost(const FakeDiskHost&) = delete;
  FakeDiskHost& operator=(const FakeDiskHost&) = delete;
  // Paths whose mount table and by-uuid folder are the fake ones.
  const HostPaths& paths() const { return m_paths; }

 private:
  TempDir m_dir;
  HostPaths m_paths;
};

// Host paths whose process table is the folder `dir`.
inline HostPaths ProcAt(const TempDir& dir) {
  HostPaths paths;
  paths.procRoot = dir.path();
  return paths;
}

}  // namespace keeltest

#endif  // TESTS_SUPPORT_FAKEDISKHOST_H_
