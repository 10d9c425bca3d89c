// Where each element of an instruction file stands, and its text as written.
//
// The tool's reader trims every piece of text it is handed and keeps no
// positions. So keelcheck reads the file a second time, straight through
// libxml2, with an event handler of the same shape as the tool's (element
// start and end, text, errors; nothing else): that yields the same elements
// in the same order as the tool's tree, in pre-order. For each element it
// keeps the line and column of its "<", its direct text with the pieces
// joined as written, and where its subtree ends in that order. Only places
// and the text as written come from here; what the tool makes of a file
// comes from the tool's own loader.
//
// One object reads one file; one thread at a time.
#ifndef TOOLS_KEEL_KEELCHECK_SOURCEMAP_H_
#define TOOLS_KEEL_KEELCHECK_SOURCEMAP_H_

#include <cstddef>
#include <string>
#include <vector>

namespace keelcheck {

class SourceMap {
 public:
  struct Element {
    std::string name;
    int line = 1;
    int column = 1;     // of the "<", counted in bytes from 1
    std::string text;   // direct character data, pieces joined untrimmed
    size_t parent = 0;  // index of the enclosing element; the root's is its own
    size_t end = 0;     // one past the last index of its subtree
  };

  // Where and why a read failed: libxml2's first report, or a read error.
  struct ReadError {
    int line = 1;
    int column = 1;
    std::string message;
  };

  SourceMap() = default;
  SourceMap(const SourceMap&) = delete;
  SourceMap& operator=(const SourceMap&) = delete;

  // Reads and parses `path`. False when the file cannot be read or is not
  // well-formed; error() then says where and why.
  bool Read(const std::string& path);

  // The elements in document order (the order of their start tags).
  const std::vector<Element>& elements() const { return m_elements; }
  const ReadError& error() const { return m_error; }
  // The bytes of the file as read.
  const std::string& bytes() const { return m_bytes; }

 private:
  friend struct SourceMapEvents;

  bool Parse();
  // Line and column of byte `offset` of the file.
  void PlaceOf(size_t offset, int& line, int& column) const;

  std::string m_bytes;
  std::vector<size_t> m_lineStarts;  // offset of the first byte of each line
  std::vector<Element> m_elements;
  std::vector<size_t> m_open;  // indices of the open elements, innermost last
  ReadError m_error;
  bool m_errorSeen = false;
};

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_SOURCEMAP_H_
