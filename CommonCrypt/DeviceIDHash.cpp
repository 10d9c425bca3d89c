#include "CommonCrypt/DeviceIDHash.h"

#include "Common/Log/Log.h"
#include "CommonCrypt/Hash.h"

ResultCode GetDeviceUniqueIDHash(std::string& out, const char* hashName, const HostPaths& paths) {
  if (hashName == nullptr)
    return HASH_ERROR_NULL_POINTER;
  out.clear();
  // A host without a findable UUID reports this code, not a device error:
  // callers only distinguish success from failure.
  const ResultCode notFound = GLOBAL_ERROR_NOT_IMPLEMENTED;

  std::string id;
  if (!GetDeviceID(id, paths)) {
    KLOG_E("Failed to get device ID information.");
    return notFound;
  }

  ResultCode result = HASH_ERROR_UNKNOWN;
  COpenSSLHash hash(&result, hashName);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "COpenSSLHash", result);
    return result;
  }
  result = HashString(hash, id, out);
  if (result != 0)
    KLOG_RC(LOG_LEVEL_E, "COpenSSLHash::HashString", result);
  return result;
}
