// A message whose argument does not fit its format: must be refused.
#include "Common/Log/Log.h"

void LogCallThatDoesNotFit(const char* name) {
  KLOG_E("%d files", name);
}
