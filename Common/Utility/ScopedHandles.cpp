#include "Common/Utility/ScopedHandles.h"

#include <sys/mman.h>
#include <unistd.h>

#include <utility>

#include <libxml/parser.h>
#include <libxml/relaxng.h>
#include <libxml/tree.h>
#include <minizip/unzip.h>
#include <minizip/zip.h>
#include <openssl/evp.h>

void HandleRelease::operator()(FILE* file) const {
  fclose(file);
}
void HandleRelease::operator()(DIR* dir) const {
  closedir(dir);
}
void HandleRelease::operator()(_xmlDoc* document) const {
  xmlFreeDoc(document);
}
void HandleRelease::operator()(_xmlParserCtxt* context) const {
  xmlFreeParserCtxt(context);
}
void HandleRelease::operator()(_xmlRelaxNG* grammar) const {
  xmlRelaxNGFree(grammar);
}
void HandleRelease::operator()(_xmlRelaxNGParserCtxt* context) const {
  xmlRelaxNGFreeParserCtxt(context);
}
void HandleRelease::operator()(_xmlRelaxNGValidCtxt* context) const {
  xmlRelaxNGFreeValidCtxt(context);
}
void HandleRelease::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

void UnzipRelease::operator()(void* archive) const {
  unzClose(archive);
}
void ZipRelease::operator()(void* archive) const {
  zipClose(archive, nullptr);
}

ScopedFd& ScopedFd::operator=(ScopedFd&& other) noexcept {
  if (this != &other)
    reset(other.release());
  return *this;
}

int ScopedFd::release() {
  const int fd = m_fd;
  m_fd = -1;
  return fd;
}

void ScopedFd::reset(int fd) {
  if (m_fd >= 0)
    close(m_fd);
  m_fd = fd;
}

MappedRegion::MappedRegion(MappedRegion&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0)) {}

MappedRegion& MappedRegion::operator=(MappedRegion&& other) noexcept {
  if (this != &other) {
    reset();
    m_data = std::exchange(other.m_data, nullptr);
    m_size = std::exchange(other.m_size, 0);
  }
  return *this;
}

void MappedRegion::reset() {
  if (m_data != nullptr)
    munmap(m_data, m_size);
  m_data = nullptr;
  m_size = 0;
}
