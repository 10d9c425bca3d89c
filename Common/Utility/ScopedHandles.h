// Owners of the C library's handles, so that every return path closes them.
#ifndef COMMON_UTILITY_SCOPEDHANDLES_H_
#define COMMON_UTILITY_SCOPEDHANDLES_H_

#include <dirent.h>

#include <cstdio>
#include <memory>

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
// An open FILE*, closed with fclose.
using FileHandle = std::unique_ptr<FILE, FileCloser>;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
// An open DIR*, closed with closedir.
using DirHandle = std::unique_ptr<DIR, DirCloser>;

#endif  // COMMON_UTILITY_SCOPEDHANDLES_H_
