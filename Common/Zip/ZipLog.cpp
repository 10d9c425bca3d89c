#include "Common/Zip/ZipLog.h"

#include <minizip/unzip.h>
#include <minizip/zip.h>
#include <zlib.h>

const char* ZipLibraryCodeText(int code) {
  switch (code) {
    case Z_ERRNO:
      return "ERRNO: input/output error";
    case Z_STREAM_ERROR:
      return "Z_STREAM_ERROR";
    case Z_DATA_ERROR:
      return "Z_DATA_ERROR: corrupt data";
    case Z_MEM_ERROR:
      return "Z_MEM_ERROR: out of memory";
    case Z_BUF_ERROR:
      return "Z_BUF_ERROR";
    case Z_VERSION_ERROR:
      return "Z_VERSION_ERROR";
    case UNZ_END_OF_LIST_OF_FILE:
      return "END_OF_LIST_OF_FILE";
    case ZIP_PARAMERROR:
      return "PARAMERROR: bad parameter";
    case ZIP_BADZIPFILE:
      return "BADZIPFILE: not a valid zip file";
    case ZIP_INTERNALERROR:
      return "INTERNALERROR";
    case UNZ_CRCERROR:
      return "CRCERROR: checksum mismatch";
    default:
      return "minizip or zlib error";
  }
}
