// The printed form of the host identifier: the hash of the root file
// system's UUID as upper-case hex text. Computed anew at each call, on the
// main thread.
#ifndef COMMONCRYPT_DEVICEIDHASH_H_
#define COMMONCRYPT_DEVICEIDHASH_H_

#include <string>

#include "Common/Result/ResultCode.h"
#include "Common/Utility/DeviceID.h"

// Hashes the UUID found by GetDeviceID with the digest `hashName` ("sha1"
// or "sha256") into `out`. A null name gives HASH_ERROR_NULL_POINTER and
// leaves `out` as it was; otherwise `out` is cleared first. When no UUID is
// found the answer is GLOBAL_ERROR_NOT_IMPLEMENTED, which callers treat as
// "no identifier on this host". The mount table and by-uuid folder are
// read from `paths`.
ResultCode GetDeviceUniqueIDHash(std::string& out, const char* hashName,
                                 const HostPaths& paths = HostPaths());

#endif  // COMMONCRYPT_DEVICEIDHASH_H_
