#include "tools/KEEL/KEELEngine/implementations/truncator.h"

#include <cmath>
#include <cstdint>

#include "Common/Log/Log.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

const char truncator::kNoteWhole[] =
    "*1: When the request specifies file(whole) truncation for a file ID(group), KEEL uses "
    "greedy algorithm\n         based on file sizes to decide which file in the ID group to "
    "keep and which to leave out.";

const char truncator::kNoteData[] =
    "*2: When the request specifies data truncation for a file ID(group), KEEL truncates all "
    "files of that ID\n         proportionally according to their original sizes, and uses "
    "defaults from configuration xml to decide whether to\n         truncate from front or end.";

namespace {

const char kNoteWholeSuffix[] = "; see note *1";
const char kNoteDataSuffix[] = "; see Note *2";

// By id bytewise ascending (a prefix first), then by size descending.
bool SortsBefore(const TruncAttrs& a, const TruncAttrs& b) {
  const int order = a.id.compare(b.id);
  if (order != 0)
    return order < 0;
  return a.size > b.size;
}

std::string FileNameOf(const std::string& path) {
  return helperUtil::splitAfterLast(path, "/");
}

}  // namespace

truncator::truncator(const TruncAttrsList& records, XMLObject* summary)
    : m_TruncAttrsList(records), m_pXMLSummary(summary) {}

void truncator::sortRecords() {
  // std::list::sort is a stable merge sort: equal records keep their order.
  m_TruncAttrsList.sort(SortsBefore);
}

ResultCode truncator::perform() {
  if (m_TruncAttrsList.empty()) {
    KLOG_E("m_TruncAttrsList is empty");
    return KEELENGINE_ERROR_NOT_INITIALIZED;
  }
  sortRecords();
  std::string currentId = m_TruncAttrsList.front().id;
  TruncateType currentType = m_TruncAttrsList.front().truncateType;
  double sum = 0.0;
  TruncAttrsList group;
  for (TruncAttrs& record : m_TruncAttrsList) {
    if (record.id != currentId) {
      // The previous ID ends here; the first record of an ID sets its scheme.
      if (currentType == TRUNC_DATA)
        truncateGroup(group, sum);
      currentId = record.id;
      sum = 0.0;
      currentType = record.truncateType;
    }
    handleRecord(record, currentType, sum, group);
  }
  if (currentType == TRUNC_DATA)
    truncateGroup(group, sum);
  if (m_noteWholeUsed)
    helperUtil::fillSummaryNote(m_pXMLSummary, kNoteWhole);
  if (m_noteDataUsed)
    helperUtil::fillSummaryNote(m_pXMLSummary, kNoteData);
  return 0;
}

void truncator::truncateGroup(TruncAttrsList& group, double total) {
  const ResultCode result = DATATruncateAll(group, total);
  if (result != 0)
    KLOG_RC(LOG_LEVEL_E, "truncator::DATATruncateAll", result);
  group.clear();
}

void truncator::handleRecord(TruncAttrs& record, TruncateType currentType, double& sum,
                             TruncAttrsList& group) {
  switch (currentType) {
    case TRUNC_WHOLE:
      if (record.truncateType == TRUNC_WHOLE) {
        keepOrDropWhole(record, sum);
      } else {
        reject(record);
      }
      return;
    case TRUNC_NONE:
      if (record.truncateType == TRUNC_NONE) {
        fillSummaryGoodFile(record);
      } else {
        reject(record);
      }
      return;
    case TRUNC_DATA:
      if (record.truncateType == TRUNC_DATA) {
        group.push_back(record);
        sum += record.size;
      } else {
        reject(record);
      }
      return;
    default:
      dropLostRecord(record);
      return;
  }
}

void truncator::keepOrDropWhole(TruncAttrs& record, double& sum) {
  const double candidate = sum + record.size;
  m_noteWholeUsed = true;
  if (record.limit >= candidate) {
    // A file that exactly fills the allowance stays.
    record.description += kNoteWholeSuffix;
    const ResultCode result = fillSummaryGoodFile(record);
    if (result != 0)
      KLOG_RC(LOG_LEVEL_E, "truncator::fillSummaryGoodFile", result);
    sum = candidate;
    return;
  }
  // Dropped; the sum stays, so a smaller file further on may still fit.
  helperUtil::fileDelete(record.path);
  const std::string reason =
      "See note *1; File/whole truncate type specified; total allowed size for this ID is " +
      helperUtil::formatFileSize(2, record.limit) + "; this file is " +
      helperUtil::formatFileSize(2, record.size);
  helperUtil::fillSummaryFailedFile(m_pXMLSummary, record.id, FileNameOf(record.path),
                                    record.description, reason);
}

void truncator::reject(const TruncAttrs& record) {
  helperUtil::fileDelete(record.path);
  fillSummaryBadFile(record);
  KLOG_I("Two files corresponding to the same fileID have different requested truncation scheme");
}

void truncator::dropLostRecord(const TruncAttrs& record) {
  KLOG_I("Lost fileID for file: \"%s\"", record.path.c_str());
  fillSummaryBadFile(record);
  if (helperUtil::fileDelete(record.path) != 0) {
    const std::string note = "Dead file: " + record.path + " in bundle.";
    helperUtil::fillSummaryNote(m_pXMLSummary, note);
    KLOG_E("%s", note.c_str());
  }
}

ResultCode truncator::noTruncate() {
  for (const TruncAttrs& record : m_TruncAttrsList)
    fillSummaryGoodFile(record);
  return 0;
}

ResultCode truncator::DATATruncateAll(TruncAttrsList& group, double total) {
  if (group.empty())
    return 0;
  m_noteDataUsed = true;
  for (TruncAttrs& record : group) {
    // Rounded towards zero. A group of only empty files divides by zero;
    // its share then is no number, and nothing is cut for it.
    const double share = record.size * record.limit / total;
    const uint64_t bytes =
        std::isfinite(share) && share > 0 ? static_cast<uint64_t>(static_cast<int64_t>(share)) : 0;
    switch (record.defaultType) {
      case TRUNC_END:
        helperUtil::fileTruncateEnd(bytes, record.path);
        break;
      case TRUNC_FRONT:
        helperUtil::fileTruncateFront(bytes, record.path);
        break;
      default:
        helperUtil::fileTruncateEnd(bytes, record.path);
        helperUtil::fillSummaryNote(
            m_pXMLSummary,
            "Warning: the file " + FileNameOf(record.path) + " corresponding to ID " + record.id +
                " has WHOLE or NONE as default truncation type, however, requested to be "
                "DATA-truncated.\n\t KEEL will truncate end, but there could be possible loss of "
                "useful data, or corruption of the file.");
        break;
    }
    record.description += kNoteDataSuffix;
    const ResultCode result = fillSummaryGoodFile(record);
    if (result != 0)
      KLOG_RC(LOG_LEVEL_E, "truncator::fillSummaryGoodFile", result);
  }
  return 0;
}

ResultCode truncator::fillSummaryBadFile(const TruncAttrs& record) {
  helperUtil::fillSummaryFailedFile(m_pXMLSummary, record.id, FileNameOf(record.path),
                                    record.description, "Internal error");
  return 0;
}

ResultCode truncator::fillSummaryGoodFile(const TruncAttrs& record) {
  if (m_pXMLSummary == nullptr) {
    KLOG_E("m_pXMLSummary is uninitialized");
    return KEELENGINE_ERROR_NOT_INITIALIZED;
  }
  KEELComponent* root = m_pXMLSummary->GetRoot();
  if (root == nullptr) {
    KLOG_E("pDCSummaryRoot is NULL");
    return KEELENGINE_ERROR_NULL_XML_ROOT;
  }
  KEELComponent* goodFiles = root->FindChild("Manifest_Included");
  if (goodFiles == nullptr) {
    KLOG_E("pDCGoodFiles is NULL");
    return KEELENGINE_ERROR_NULL_XML_CHILD;
  }
  auto* entry = new KEELComponent(record.id, FileNameOf(record.path));
  entry->AddAttribute("description", record.description);
  entry->AddAttribute("file_size", helperUtil::formatFileSize(2, record.size));
  goodFiles->AddChild(entry);
  return 0;
}
