// SaxWriterIfc and VVCSaxWriter: an XML document written as a stream of
// start and end calls.
//
// The writer builds the whole document in one string and writes it to its
// file at the end, in one go. Names, attribute values and text go out as they
// stand: there is no escaping (text holding "&" or "<" goes into CDATA
// sections), no indentation and no line break. Because the document may hold
// secrets, every buffer the writer gives up is overwritten with zero bytes
// first, and so is the text when the writer is destroyed.
//
// A writer belongs to the thread that made it; nothing is shared.
#ifndef COMMON_XML_VVCSAXWRITER_H_
#define COMMON_XML_VVCSAXWRITER_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "Common/Result/ResultCode.h"

// Attribute name and value pairs, written in list order.
typedef std::vector<std::pair<std::string, std::string>> SaxAttributeList;

class SaxWriterIfc {
 public:
  virtual ~SaxWriterIfc() = default;

  // Starts over: the XML declaration, then the root element with
  // `attributes` (may be null).
  virtual ResultCode startDocument(const SaxAttributeList* attributes) = 0;
  // "<name a="v"...>"; `attributes` may be null.
  virtual ResultCode startElement(const std::string& name, const SaxAttributeList* attributes) = 0;
  // Character data, wrapped in CDATA when it holds "&" or "<".
  virtual ResultCode characters(const std::string& text) = 0;
  virtual ResultCode endElement(const std::string& name) = 0;
  // Closes the root element.
  virtual ResultCode endDocument() = 0;
  // Writes the text to the output file, making its folder first.
  virtual ResultCode writeDocument() = 0;
  // The document as built so far.
  virtual const std::string& getText() const = 0;
};

class VVCSaxWriter : public SaxWriterIfc {
 public:
  // Spare room reserved beyond the needed length whenever the text grows.
  static constexpr size_t kGrowthSlack = 256;

  // The output file is `folder` + `fileName`, joined as they stand: `folder`
  // should end in "/".
  VVCSaxWriter(const std::string& folder, const std::string& fileName, const std::string& rootName);
  ~VVCSaxWriter() override;

  VVCSaxWriter(const VVCSaxWriter&) = delete;
  VVCSaxWriter& operator=(const VVCSaxWriter&) = delete;

  ResultCode startDocument(const SaxAttributeList* attributes) override;
  ResultCode startElement(const std::string& name, const SaxAttributeList* attributes) override;
  ResultCode characters(const std::string& text) override;
  ResultCode endElement(const std::string& name) override;
  ResultCode endDocument() override;
  // GLOBAL_ERROR_UNEXPECTED when the folder can't be made or the file can't
  // be opened or written; the failure is logged.
  ResultCode writeDocument() override;
  const std::string& getText() const override { return m_text; }

 private:
  // Appends `size` bytes, moving to a bigger buffer (with kGrowthSlack to
  // spare) when the current one is too small and wiping the old one.
  void append(const char* data, size_t size);
  void append(const std::string& text) { append(text.data(), text.size()); }
  // Appends `text` as CDATA sections, split so that a "]]>" inside the text
  // can't end a section early.
  void appendCData(const std::string& text);

  std::string m_text;
  std::string m_rootName;
  std::string m_folder;
  std::string m_fileName;
};

#endif  // COMMON_XML_VVCSAXWRITER_H_
