// truncator: decides which collected files stay in the bundle and how large
// they are, and lists them in the summary document.
//
// Files are grouped by file ID. Each ID has an allowance in bytes and a kind
// of truncation: keep whole files while they fit, shrink all of them in
// proportion, or leave them alone. The bundle run only lists its files
// (noTruncate); perform is the full procedure for request-driven runs.
//
// One object per summary; it holds private copies of the records and does
// not own the summary document. It runs on a pool thread under the summary
// lock, so only one truncator works at a time.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_TRUNCATOR_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_TRUNCATOR_H_

#include "Common/Result/ResultCode.h"
#include "tools/KEEL/KEELEngine/implementations/KEELTypes.h"

class XMLObject;

class truncator {
 public:
  // The note written once when whole files were kept or dropped.
  static const char kNoteWhole[];
  // The note written once when files were shrunk in proportion.
  static const char kNoteData[];

  truncator(const TruncAttrsList& records, XMLObject* summary);
  virtual ~truncator() = default;

  // Sorts the records and applies each ID's scheme: deletes or cuts files
  // on disk and writes the summary entries and notes. Call once.
  virtual ResultCode perform();
  // Lists every record as an included file; nothing is cut or deleted.
  virtual ResultCode noTruncate();
  // Cuts every file of `group` to its share of the allowance.
  virtual ResultCode DATATruncateAll(TruncAttrsList& group, double total);
  // Lists the record as omitted with the reason "Internal error".
  virtual ResultCode fillSummaryBadFile(const TruncAttrs& record);
  // Lists the record below "Manifest_Included" with its size before any cut.
  virtual ResultCode fillSummaryGoodFile(const TruncAttrs& record);

  const TruncAttrsList& records() const { return m_TruncAttrsList; }

 private:
  void sortRecords();
  void handleRecord(TruncAttrs& record, TruncateType currentType, double& sum,
                    TruncAttrsList& group);
  void keepOrDropWhole(TruncAttrs& record, double& sum);
  void reject(const TruncAttrs& record);
  void dropLostRecord(const TruncAttrs& record);
  void truncateGroup(TruncAttrsList& group, double total);

  bool m_noteDataUsed = false;
  bool m_noteWholeUsed = false;
  TruncAttrsList m_TruncAttrsList;
  XMLObject* m_pXMLSummary;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_TRUNCATOR_H_
