// Log calls whose arguments fit their formats: these must compile.
#include "Common/Log/Log.h"

void LogCallsThatFit(int count, const char* name) {
  KLOG_E("%d files in \"%s\"", count, name);
  KLOG_RC(LOG_LEVEL_W, "open", 2);
  KLOG_RC_FMT(LOG_LEVEL_E, "open", 2, "errno %d: %s", count, name);
}
