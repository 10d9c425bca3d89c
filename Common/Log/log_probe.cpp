// log_probe: opens a log scope as "vtc_keelcli" and logs each argument as one
// message. The first argument is the level letter; "rc" as the level logs a
// return code instead. Used by the tests to see what the sinks send.
#include <cstring>

#include "Common/Log/Log.h"

int main(int argc, char** argv) {
  ResultCode result = 0;
  CLogScope scope(&result, "vtc_keelcli", nullptr);
  if (argc < 2)
    return 2;
  for (int i = 2; i < argc; ++i) {
    if (strcmp(argv[1], "rc") == 0) {
      KLOG_RC(LOG_LEVEL_E, argv[i], KEELENGINE_ERROR_FILE_OPEN_FAILURE);
    } else {
      LogDebugMessage("main", "probe", 7, static_cast<unsigned char>(argv[1][0]), "%s", argv[i]);
    }
  }
  return 0;
}
