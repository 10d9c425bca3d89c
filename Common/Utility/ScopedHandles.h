// The owners of every handle the code takes from the C library and from the
// libraries below it, so that every return path releases it exactly once.
//
// Each kind of resource has one owner type here: file streams (FileHandle),
// folders (DirHandle), descriptors (ScopedFd), memory maps (MappedRegion),
// libxml2 documents, parser and grammar contexts, OpenSSL digest contexts,
// and minizip archives. The library types are only declared here; the
// releasing calls live in ScopedHandles.cpp, so including this header pulls
// in no library header.
//
// An owner belongs to one thread at a time; moving it hands the handle on.
// Where a release can fail in a way that matters (closing a written file),
// the caller releases it itself and checks the answer.
#ifndef COMMON_UTILITY_SCOPEDHANDLES_H_
#define COMMON_UTILITY_SCOPEDHANDLES_H_

#include <dirent.h>

#include <cstddef>
#include <cstdio>
#include <memory>

// The libraries' handle types, as they declare them.
struct _xmlDoc;
struct _xmlParserCtxt;
struct _xmlRelaxNG;
struct _xmlRelaxNGParserCtxt;
struct _xmlRelaxNGValidCtxt;
struct evp_md_ctx_st;

// Releases a handle with the call its library gives for its type.
struct HandleRelease {
  void operator()(FILE* file) const;
  void operator()(DIR* dir) const;
  void operator()(_xmlDoc* document) const;
  void operator()(_xmlParserCtxt* context) const;
  void operator()(_xmlRelaxNG* grammar) const;
  void operator()(_xmlRelaxNGParserCtxt* context) const;
  void operator()(_xmlRelaxNGValidCtxt* context) const;
  void operator()(evp_md_ctx_st* context) const;
};

// minizip's handles are untyped pointers: each has a release of its own.
struct UnzipRelease {
  void operator()(void* archive) const;  // unzClose
};
struct ZipRelease {
  void operator()(void* archive) const;  // zipClose without a comment
};

using FileHandle = std::unique_ptr<FILE, HandleRelease>;
using DirHandle = std::unique_ptr<DIR, HandleRelease>;
using XmlDocHandle = std::unique_ptr<_xmlDoc, HandleRelease>;
using XmlParserContextHandle = std::unique_ptr<_xmlParserCtxt, HandleRelease>;
using RelaxNgGrammarHandle = std::unique_ptr<_xmlRelaxNG, HandleRelease>;
using RelaxNgParserContextHandle = std::unique_ptr<_xmlRelaxNGParserCtxt, HandleRelease>;
using RelaxNgValidContextHandle = std::unique_ptr<_xmlRelaxNGValidCtxt, HandleRelease>;
using DigestContextHandle = std::unique_ptr<evp_md_ctx_st, HandleRelease>;
using UnzipHandle = std::unique_ptr<void, UnzipRelease>;
using ZipHandle = std::unique_ptr<void, ZipRelease>;

// An open descriptor, closed on destruction; -1 holds none.
class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : m_fd(fd) {}
  ~ScopedFd() { reset(); }
  ScopedFd(ScopedFd&& other) noexcept : m_fd(other.release()) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept;
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  int get() const { return m_fd; }
  bool valid() const { return m_fd >= 0; }
  // Gives the descriptor up without closing it.
  int release();
  // Closes the one held, and holds `fd`.
  void reset(int fd = -1);

 private:
  int m_fd;
};

// A mapped region of memory, unmapped on destruction.
class MappedRegion {
 public:
  MappedRegion() = default;
  MappedRegion(void* data, size_t size) : m_data(data), m_size(size) {}
  ~MappedRegion() { reset(); }
  MappedRegion(MappedRegion&& other) noexcept;
  MappedRegion& operator=(MappedRegion&& other) noexcept;
  MappedRegion(const MappedRegion&) = delete;
  MappedRegion& operator=(const MappedRegion&) = delete;

  const char* data() const { return static_cast<const char*>(m_data); }
  size_t size() const { return m_size; }
  // Unmaps the region held, if any.
  void reset();

 private:
  void* m_data = nullptr;
  size_t m_size = 0;
};

#endif  // COMMON_UTILITY_SCOPEDHANDLES_H_
