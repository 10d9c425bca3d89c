// Result codes: every fallible operation returns one of these by value.
//
// 0 is success. A failure has 0xFE in the top byte, the module index in bits
// 23..16 and the row inside that module in bits 15..0. The catalogue in
// ResultCatalog.h turns a code back into its name for the log.
#ifndef COMMON_RESULT_RESULTCODE_H_
#define COMMON_RESULT_RESULTCODE_H_

#include <cstdint>

typedef uint32_t ResultCode;

constexpr ResultCode kResultClassMask = 0xFE000000u;

constexpr ResultCode MakeResultCode(uint32_t module, uint32_t row) {
  return kResultClassMask | (module << 16) | row;
}

// The ten rows every module with more than one row starts with. Its own rows
// follow from index 10, and <MODULE>_ERROR_UNKNOWN is its last row.
#define KEEL_FRAME_CODES(M, IDX)                                               \
  constexpr ResultCode M##_SUCCESS = MakeResultCode(IDX, 0);                   \
  constexpr ResultCode M##_ERROR_NOT_IMPLEMENTED = MakeResultCode(IDX, 1);     \
  constexpr ResultCode M##_ERROR_BAD_PARAMETER = MakeResultCode(IDX, 2);       \
  constexpr ResultCode M##_ERROR_BAD_HANDLE = MakeResultCode(IDX, 3);          \
  constexpr ResultCode M##_ERROR_MEMALLOC_FAILED = MakeResultCode(IDX, 4);     \
  constexpr ResultCode M##_ERROR_NULL_POINTER = MakeResultCode(IDX, 5);        \
  constexpr ResultCode M##_ERROR_INSUFFICIENT_BUFFER = MakeResultCode(IDX, 6); \
  constexpr ResultCode M##_ERROR_NOT_INITIALIZED = MakeResultCode(IDX, 7);     \
  constexpr ResultCode M##_ERROR_ALREADY_INITIALIZED = MakeResultCode(IDX, 8); \
  constexpr ResultCode M##_ERROR_UNEXPECTED = MakeResultCode(IDX, 9);

// GLOBAL, module 0x00.
KEEL_FRAME_CODES(GLOBAL, 0x00)
constexpr ResultCode GLOBAL_ERROR_NO_INSTANCE = 0xFE00000Au;
constexpr ResultCode GLOBAL_ERROR_MGMT_TUNNEL_TERMINATING = 0xFE00000Bu;
constexpr ResultCode GLOBAL_ERROR_RESOURCE_NOT_ALLOCATED = 0xFE00000Cu;
constexpr ResultCode GLOBAL_ERROR_RESOURCE_NOT_AVAILABLE = 0xFE00000Du;
constexpr ResultCode GLOBAL_ERROR_UNKNOWN = 0xFE00000Eu;

// EVENT, module 0x01.
KEEL_FRAME_CODES(EVENT, 0x01)
constexpr ResultCode EVENT_ERROR_NO_CALLBACK = 0xFE01000Au;
constexpr ResultCode EVENT_ERROR_EVENT_IS_ALREADY_ON_A_LIST = 0xFE01000Bu;
constexpr ResultCode EVENT_ERROR_WAIT_TIMEOUT = 0xFE01000Cu;
constexpr ResultCode EVENT_ERROR_WAIT_FAILED = 0xFE01000Du;
constexpr ResultCode EVENT_ERROR_DUPLICATE_FAILED = 0xFE01000Eu;
constexpr ResultCode EVENT_ERROR_CREATE_FAILED = 0xFE01000Fu;
constexpr ResultCode EVENT_ERROR_SET_FAILED = 0xFE010010u;
constexpr ResultCode EVENT_ERROR_RESET_FAILED = 0xFE010011u;
constexpr ResultCode EVENT_ERROR_EVENT_TYPE_INVALID_FOR_LISTS = 0xFE010012u;
constexpr ResultCode EVENT_ERROR_UNKNOWN = 0xFE010013u;

// PROCESS_API, module 0x2B.
KEEL_FRAME_CODES(PROCESS_API, 0x2B)
constexpr ResultCode PROCESS_API_ERROR_NOTRUNNING = 0xFE2B000Au;
constexpr ResultCode PROCESS_API_ERROR_NO_USER_TOKEN = 0xFE2B0026u;
constexpr ResultCode PROCESS_API_ERROR_GET_THREAD_PRIORITY_FAILED = 0xFE2B002Au;
constexpr ResultCode PROCESS_API_ERROR_SET_THREAD_PRIORITY_FAILED = 0xFE2B002Bu;
constexpr ResultCode PROCESS_API_ERROR_WAIT_INTERRUPTED = 0xFE2B002Cu;
constexpr ResultCode PROCESS_API_ERROR_WAIT_TIMEOUT = 0xFE2B002Du;
constexpr ResultCode PROCESS_API_ERROR_PROCESS_NOT_FOUND = 0xFE2B0035u;
constexpr ResultCode PROCESS_API_ERROR_UNKNOWN = 0xFE2B003Au;

// HASH, module 0x30.
KEEL_FRAME_CODES(HASH, 0x30)
constexpr ResultCode HASH_ERROR_GET_DIGEST = 0xFE30000Au;
constexpr ResultCode HASH_ERROR_INIT = 0xFE30000Bu;
constexpr ResultCode HASH_ERROR_UPDATE = 0xFE30000Cu;
constexpr ResultCode HASH_ERROR_GET_HASH = 0xFE30000Du;
constexpr ResultCode HASH_ERROR_IO = 0xFE30000Eu;
constexpr ResultCode HASH_ERROR_ALGORITHM_NOT_SUPPORTED = 0xFE30000Fu;
constexpr ResultCode HASH_ERROR_UNKNOWN = 0xFE300010u;

// THREAD, module 0x34.
KEEL_FRAME_CODES(THREAD, 0x34)
constexpr ResultCode THREAD_ERROR_CREATE_FAILED = 0xFE34000Au;
constexpr ResultCode THREAD_ERROR_INVALID_STACK_SIZE = 0xFE34000Bu;
constexpr ResultCode THREAD_ERROR_INVALID_CALLER = 0xFE34000Cu;
constexpr ResultCode THREAD_ERROR_INVALID_STATE = 0xFE34000Du;
constexpr ResultCode THREAD_ERROR_POSIX_JOIN_FAILED = 0xFE34000Eu;
constexpr ResultCode THREAD_ERROR_WIN_GET_EXIT_CODE_THREAD_FAILED = 0xFE34000Fu;
constexpr ResultCode THREAD_ERROR_WIN_WAIT_FAILED = 0xFE340010u;
constexpr ResultCode THREAD_ERROR_WIN_WAIT_TIMEOUT = 0xFE340011u;
constexpr ResultCode THREAD_ERROR_COM_INIT_FAILED = 0xFE340012u;
constexpr ResultCode THREAD_ERROR_UNKNOWN = 0xFE340013u;

// DIRECTORY, module 0x58.
KEEL_FRAME_CODES(DIRECTORY, 0x58)
constexpr ResultCode DIRECTORY_ERROR_DIRECTORY_NOT_SPECIFIED = 0xFE58000Au;
constexpr ResultCode DIRECTORY_ERROR_DIRECTORY_NOT_FOUND = 0xFE58000Bu;
constexpr ResultCode DIRECTORY_ERROR_NO_MORE_FILES = 0xFE58000Cu;
constexpr ResultCode DIRECTORY_ERROR_FAILED_TO_CREATE_DIR = 0xFE58000Du;
constexpr ResultCode DIRECTORY_ERROR_DIRECTORY_ALREADY_EXISTS = 0xFE58000Eu;
constexpr ResultCode DIRECTORY_ERROR_UNKNOWN = 0xFE58000Fu;

// OPENSSLUTILITY, module 0x59.
KEEL_FRAME_CODES(OPENSSLUTILITY, 0x59)
constexpr ResultCode OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY = 0xFE59000Au;
constexpr ResultCode OPENSSLUTILITY_ERROR_UNKNOWN = 0xFE59000Bu;

// EVENTLIST, module 0x8C.
KEEL_FRAME_CODES(EVENTLIST, 0x8C)
constexpr ResultCode EVENTLIST_ERROR_LIMIT_EXCEEDED = 0xFE8C000Au;
constexpr ResultCode EVENTLIST_ERROR_EVENT_NOT_FOUND = 0xFE8C000Bu;
constexpr ResultCode EVENTLIST_ERROR_BAD_EVENT_PIPE = 0xFE8C000Cu;
constexpr ResultCode EVENTLIST_ERROR_BAD_EVENT_HANDLE_TYPE = 0xFE8C000Du;
constexpr ResultCode EVENTLIST_ERROR_UNKNOWN = 0xFE8C000Eu;

// CSTORAGEPATH, module 0x9E.
KEEL_FRAME_CODES(CSTORAGEPATH, 0x9E)
constexpr ResultCode CSTORAGEPATH_ERROR_NO_INSTANCE = 0xFE9E000Au;
constexpr ResultCode CSTORAGEPATH_ERROR_GETTEMPPATH_FAILED = 0xFE9E000Bu;
constexpr ResultCode CSTORAGEPATH_ERROR_TEMPPATH_TOO_BIG = 0xFE9E000Cu;
constexpr ResultCode CSTORAGEPATH_ERROR_UNKNOWN = 0xFE9E000Du;

// KEELENGINE, module 0xB0.
KEEL_FRAME_CODES(KEELENGINE, 0xB0)
constexpr ResultCode KEELENGINE_ERROR_INTERNAL = 0xFEB0000Au;
constexpr ResultCode KEELENGINE_ERROR_WRITE_FAILURE = 0xFEB0000Bu;
constexpr ResultCode KEELENGINE_ERROR_FILE_NOT_FOUND = 0xFEB0000Cu;
constexpr ResultCode KEELENGINE_ERROR_FILE_OPEN_FAILURE = 0xFEB0000Du;
constexpr ResultCode KEELENGINE_ERROR_ACCESS_DENIED = 0xFEB0000Eu;
constexpr ResultCode KEELENGINE_ERROR_NULL_XML_ROOT = 0xFEB0000Fu;
constexpr ResultCode KEELENGINE_ERROR_NULL_XML_CHILD = 0xFEB00010u;
constexpr ResultCode KEELENGINE_ERROR_INVALID_XML = 0xFEB00011u;
constexpr ResultCode KEELENGINE_ERROR_UNKNOWN_XML_TAG = 0xFEB00012u;
constexpr ResultCode KEELENGINE_ERROR_ACTION_CANCELED_BY_USER = 0xFEB00013u;
constexpr ResultCode KEELENGINE_ERROR_EXTERN_ACTION_TIMEOUT = 0xFEB00014u;
constexpr ResultCode KEELENGINE_ERROR_UNKNOWN = 0xFEB00015u;

// KEELOFFLINE, module 0xB1.
KEEL_FRAME_CODES(KEELOFFLINE, 0xB1)
constexpr ResultCode KEELOFFLINE_ERROR_INTERNAL = 0xFEB1000Au;
constexpr ResultCode KEELOFFLINE_ERROR_PROCESSING = 0xFEB1000Bu;
constexpr ResultCode KEELOFFLINE_ERROR_XML_CONFIG_PARSE_SUCCESS = 0xFEB1000Cu;
constexpr ResultCode KEELOFFLINE_ERROR_XML_REQUEST_GENERATE_SUCCESS = 0xFEB1000Du;
constexpr ResultCode KEELOFFLINE_ERROR_UNKNOWN = 0xFEB1000Eu;

// XMLLOCALTWPOLMGR, module 0xB6.
KEEL_FRAME_CODES(XMLLOCALTWPOLMGR, 0xB6)
constexpr ResultCode XMLLOCALTWPOLMGR_ERROR_NO_INSTANCE = 0xFEB6000Au;
constexpr ResultCode XMLLOCALTWPOLMGR_ERROR_UNKNOWN = 0xFEB6000Bu;

#endif  // COMMON_RESULT_RESULTCODE_H_
