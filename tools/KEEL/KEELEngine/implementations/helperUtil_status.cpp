// Status channel of helperUtil (counts, progress and the console or listener
// that shows it) and the entries it adds to a collector's summary.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "Common/Log/Log.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

// Set by the engine before the pool starts and read by pool threads.
std::atomic<uint32_t> g_configCount{0};
// Starts at 1 so that the first percentage is 0.
std::atomic<int32_t> g_doneCount{1};
std::atomic<bool> g_cliMode{false};
std::atomic<statusListener*> g_listener{nullptr};
// Guarded by the callers' statusLock.
KEELStatusRecord g_status;

}  // namespace

void helperUtil::setConfigCount(uint32_t count) {
  g_configCount.store(count);
}

uint32_t helperUtil::getConfigCount() {
  return g_configCount.load();
}

int32_t helperUtil::incrementDoneCount() {
  return g_doneCount.fetch_add(1) + 1;
}

int32_t helperUtil::getDoneCount() {
  return g_doneCount.load();
}

int32_t helperUtil::progressOf(int32_t done) {
  const uint32_t configs = g_configCount.load();
  if (configs == 0)
    return 0;
  // 32-bit arithmetic that wraps rather than overflowing.
  const auto scaled = static_cast<int32_t>(static_cast<uint32_t>(done) * 92u - 92u);
  const float percent = static_cast<float>(scaled) / static_cast<float>(configs);
  // A float near the ends of the 32-bit range may round beyond it.
  if (percent >= 2147483647.0f)
    return INT32_MAX;
  if (percent <= -2147483648.0f)
    return INT32_MIN;
  return static_cast<int32_t>(percent);
}

void helperUtil::setCliMode(bool cliMode) {
  g_cliMode.store(cliMode);
}

bool helperUtil::getCliMode() {
  return g_cliMode.load();
}

void helperUtil::setStatusListener(statusListener* listener) {
  g_listener.store(listener);
}

void helperUtil::reportStatus(int32_t percent, const std::string& message, ResultCode code) {
  if (g_cliMode.load()) {
    if (code != KEELOFFLINE_ERROR_PROCESSING) {
      fputs("\r\n", stdout);
      fputs(message.c_str(), stdout);
      fputs("\r\n", stdout);
    } else if (!message.empty() && percent != 0) {
      // Progress rewrites one console line, always 90 columns wide.
      fputs("\r", stdout);
      printf("%-90.90s %3d%%", message.c_str(), static_cast<int>(percent));
      fflush(stdout);
    }
    return;
  }

  statusListener* listener = g_listener.load();
  if (listener == nullptr)
    return;
  if (percent != 0)
    g_status.percent = percent;
  if (!message.empty())
    g_status.message = message;
  listener->statusChanged(g_status, code);
}

std::mutex& helperUtil::statusLock() {
  static std::mutex lock;
  return lock;
}

// ---- Summary entries ----------------------------------------------------------
//
// Entries go straight onto the section's component, so the document's own
// count stays as it is.

namespace {

// True when the summary can take entries; logs why not.
bool HasRoot(const XMLObject* summary) {
  if (summary == nullptr) {
    KLOG_E("pXMLSummary is NULL");
    return false;
  }
  if (summary->GetRoot() == nullptr) {
    KLOG_E("pXMLSummary->GetRoot() is NULL");
    return false;
  }
  return true;
}

}  // namespace

void helperUtil::fillSummaryFailedFile(XMLObject* summary, const std::string& id,
                                       const std::string& fileName, const std::string& description,
                                       const std::string& reason) {
  if (!HasRoot(summary))
    return;
  KEELComponent* failedFiles = summary->FindChild(summary->GetRoot(), "Manifest_Not_Included");
  if (failedFiles == nullptr) {
    KLOG_E("pDCFailedFiles is NULL");
    return;
  }
  std::unique_ptr<KEELComponent> entry(new KEELComponent(id, fileName));
  entry->AddAttribute("description", description);
  entry->AddAttribute("reason", reason);
  failedFiles->AddChild(entry.release());
}

void helperUtil::fillSummaryNote(XMLObject* summary, const std::string& note) {
  if (!HasRoot(summary))
    return;
  KEELComponent* notes = summary->FindChild(summary->GetRoot(), "Other_Note");
  if (notes == nullptr) {
    KLOG_E("pDCNoteComponent is NULL");
    return;
  }
  // The entry's name is the text that the summary prints ahead of the note.
  notes->AddChild(" - ", note);
}
