// A failed-call line whose argument does not fit its format: must be refused.
#include "Common/Log/Log.h"

void LogCallThatDoesNotFit(int count) {
  KLOG_RC_FMT(LOG_LEVEL_E, "open", 2, "in %s", count);
}
