// The result-code catalogue of the client family.
//
// Modules this tool returns codes of carry all their rows; every other module
// keeps its slot with the ten frame rows and its last row, so that indices
// never move. Retired slots hold one "DUMMY" row, and the last slot has none.
#include "Common/Result/ResultCatalog.h"

namespace {

#define KEEL_FRAME_ROWS(M)                                                                       \
#M "_SUCCESS", #M "_ERROR_NOT_IMPLEMENTED", #M "_ERROR_BAD_PARAMETER", #M "_ERROR_BAD_HANDLE", \
      #M "_ERROR_MEMALLOC_FAILED", #M "_ERROR_NULL_POINTER", #M "_ERROR_INSUFFICIENT_BUFFER",    \
      #M "_ERROR_NOT_INITIALIZED", #M "_ERROR_ALREADY_INITIALIZED", #M "_ERROR_UNEXPECTED"

const char* const kDummyRows[] = {"DUMMY_ERROR_NOT_IMPLEMENTED"};

// Modules whose own rows the tool uses, in full.
const char* const kGLOBAL[] = {
    KEEL_FRAME_ROWS(GLOBAL),
    "GLOBAL_ERROR_NO_INSTANCE",
    "GLOBAL_ERROR_MGMT_TUNNEL_TERMINATING:used by Agent to signal to user tunnel Downloader that "
    "start",
    "GLOBAL_ERROR_RESOURCE_NOT_ALLOCATED:Attempt to free an unheld resource.",
    "GLOBAL_ERROR_RESOURCE_NOT_AVAILABLE:Attempt to allocate or free a resource",
    "GLOBAL_ERROR_UNKNOWN",
};

const char* const kEVENT[] = {
    KEEL_FRAME_ROWS(EVENT),
    "EVENT_ERROR_NO_CALLBACK:An operation requiring an event callback was attempted on an event "
    "without a callback.",
    "EVENT_ERROR_EVENT_IS_ALREADY_ON_A_LIST:Attempted to place an event on an event list while it "
    "was already on an event list.",
    "EVENT_ERROR_WAIT_TIMEOUT:A wait on an event or a list of events timed out.",
    "EVENT_ERROR_WAIT_FAILED:A wait on an event or a list of events failed.",
    "EVENT_ERROR_DUPLICATE_FAILED:An attempt to duplicate an event's OS handle failed.",
    "EVENT_ERROR_CREATE_FAILED:An attempt to create an event's OS handle failed.",
    "EVENT_ERROR_SET_FAILED:An attempt to set an event's signaled state failed.",
    "EVENT_ERROR_RESET_FAILED:An attempt to reset an event's signaled state failed.",
    "EVENT_ERROR_EVENT_TYPE_INVALID_FOR_LISTS:Attempted to place an event, with an event type that "
    "is not valid for lists, on an event list.",
    "EVENT_ERROR_UNKNOWN",
};

const char* const kPROCESS_API[] = {
    KEEL_FRAME_ROWS(PROCESS_API),
    "PROCESS_API_ERROR_NOTRUNNING",
    "PROCESS_API_ERROR_FILENOTFOUND",
    "PROCESS_API_ERROR_PATHNOTFOUND",
    "PROCESS_API_ERROR_INVALIDPROCESSID",
    "PROCESS_API_ERROR_PROCESS_ABORTED",
    "PROCESS_API_ERROR_NOPROCSLOTS",
    "PROCESS_API_ERROR_FAILEDOPENPIDFILE",
    "PROCESS_API_ERROR_PIDFILELOCKED",
    "PROCESS_API_ERROR_GETSYSDIR",
    "PROCESS_API_ERROR_TRUSTDLL_LOAD_FAIL",
    "PROCESS_API_ERROR_TRUSTFUNC_LOAD_FAIL",
    "PROCESS_API_ERROR_TRUSTPROV_UNKOWN",
    "PROCESS_API_ERROR_SUBJ_UNTRUST",
    "PROCESS_API_ERROR_NO_SIG",
    "PROCESS_API_ERROR_CERT_EXPIRE",
    "PROCESS_API_ERROR_UNTRUSTED_ROOT",
    "PROCESS_API_ERROR_CERT_REVOKED",
    "PROCESS_API_ERROR_UNTRUSTEDCA",
    "PROCESS_API_ERROR_WRONG_USE",
    "PROCESS_API_ERROR_ISSUERCHAINING",
    "PROCESS_API_ERROR_TRUST",
    "PROCESS_API_ERROR_UNTRUSTED_SIGNER",
    "PROCESS_API_ERROR_QUERY_OBJECT",
    "PROCESS_API_ERROR_MSG_GET_PARAM",
    "PROCESS_API_ERROR_MSG_GET_PARAM2",
    "PROCESS_API_ERROR_FIND_CERT",
    "PROCESS_API_ERROR_GET_NAME",
    "PROCESS_API_ERROR_OUT_OF_MEMORY",
    "PROCESS_API_ERROR_NO_USER_TOKEN",
    "PROCESS_API_ERROR_WINSECAPI_INSTANCE_FAILED",
    "PROCESS_API_ERROR_NO_CREATEASUSER_PROC",
    "PROCESS_API_ERROR_NO_CREATEASUSER_LIB",
    "PROCESS_API_ERROR_GET_THREAD_PRIORITY_FAILED",
    "PROCESS_API_ERROR_SET_THREAD_PRIORITY_FAILED",
    "PROCESS_API_ERROR_WAIT_INTERRUPTED",
    "PROCESS_API_ERROR_WAIT_TIMEOUT",
    "PROCESS_API_ERROR_USER_ADD_FAILED",
    "PROCESS_API_ERROR_USER_SET_PASSWORD_FAILED",
    "PROCESS_API_ERROR_USER_DELETE_FAILED",
    "PROCESS_API_ERROR_USER_NOT_FOUND",
    "PROCESS_API_ERROR_CREATE_THSNAPSHOT_FAILED",
    "PROCESS_API_ERROR_OPEN_PROCESS_FAILED",
    "PROCESS_API_ERROR_GET_PROCESS_NAME_FAILED",
    "PROCESS_API_ERROR_PROCESS_NOT_FOUND",
    "PROCESS_API_ERROR_INTEGRITY_CHECK_FAILED",
    "PROCESS_API_ERROR_INSUFFICIENT_PRIVILEGE",
    "PROCESS_API_ERROR_ENUM_FAILED",
    "PROCESS_API_ERROR_TERMINATE_FAILED",
    "PROCESS_API_ERROR_UNKNOWN",
};

const char* const kHASH[] = {
    KEEL_FRAME_ROWS(HASH),
    "HASH_ERROR_GET_DIGEST",
    "HASH_ERROR_INIT",
    "HASH_ERROR_UPDATE",
    "HASH_ERROR_GET_HASH",
    "HASH_ERROR_IO",
    "HASH_ERROR_ALGORITHM_NOT_SUPPORTED:the specified hashing algorithm is not supported by the "
    "current platform",
    "HASH_ERROR_UNKNOWN",
};

const char* const kTHREAD[] = {
    KEEL_FRAME_ROWS(THREAD),
    "THREAD_ERROR_CREATE_FAILED",
    "THREAD_ERROR_INVALID_STACK_SIZE",
    "THREAD_ERROR_INVALID_CALLER",
    "THREAD_ERROR_INVALID_STATE",
    "THREAD_ERROR_POSIX_JOIN_FAILED",
    "THREAD_ERROR_WIN_GET_EXIT_CODE_THREAD_FAILED",
    "THREAD_ERROR_WIN_WAIT_FAILED",
    "THREAD_ERROR_WIN_WAIT_TIMEOUT",
    "THREAD_ERROR_COM_INIT_FAILED",
    "THREAD_ERROR_UNKNOWN",
};

// The prefix of the last row differs from the module's own; kept as it is.
const char* const kFILESYSTEMWATCHER[] = {
    KEEL_FRAME_ROWS(FILESYSTEMWATCHER),
    "FILEWATCHER_ERROR_UNKNOWN",
};

const char* const kDIRECTORY[] = {
    KEEL_FRAME_ROWS(DIRECTORY),
    "DIRECTORY_ERROR_DIRECTORY_NOT_SPECIFIED",
    "DIRECTORY_ERROR_DIRECTORY_NOT_FOUND",
    "DIRECTORY_ERROR_NO_MORE_FILES",
    "DIRECTORY_ERROR_FAILED_TO_CREATE_DIR",
    "DIRECTORY_ERROR_DIRECTORY_ALREADY_EXISTS",
    "DIRECTORY_ERROR_UNKNOWN",
};

const char* const kOPENSSLUTILITY[] = {
    KEEL_FRAME_ROWS(OPENSSLUTILITY),
    "OPENSSLUTILITY_ERROR_OPENSSL_LIBRARY",
    "OPENSSLUTILITY_ERROR_UNKNOWN",
};

const char* const kEVENTLIST[] = {
    KEEL_FRAME_ROWS(EVENTLIST),
    "EVENTLIST_ERROR_LIMIT_EXCEEDED:The maximum number of events an event list can support has "
    "been exceeded.",
    "EVENTLIST_ERROR_EVENT_NOT_FOUND:A list was searched for a specific event and was not found.",
    "EVENTLIST_ERROR_BAD_EVENT_PIPE:The event's data structure does not contain a valid OS pipe "
    "handle.",
    "EVENTLIST_ERROR_BAD_EVENT_HANDLE_TYPE:The event's data structure does not contain a valid OS "
    "handle type specifier.",
    "EVENTLIST_ERROR_UNKNOWN",
};

const char* const kCSTORAGEPATH[] = {
    KEEL_FRAME_ROWS(CSTORAGEPATH),
    "CSTORAGEPATH_ERROR_NO_INSTANCE",
    "CSTORAGEPATH_ERROR_GETTEMPPATH_FAILED",
    "CSTORAGEPATH_ERROR_TEMPPATH_TOO_BIG",
    "CSTORAGEPATH_ERROR_UNKNOWN",
};

const char* const kKEELENGINE[] = {
    KEEL_FRAME_ROWS(KEELENGINE),
    "KEELENGINE_ERROR_INTERNAL:Error: KEEL encountered an unspecified internal error",
    "KEELENGINE_ERROR_WRITE_FAILURE:Error: Failed to write to file",
    "KEELENGINE_ERROR_FILE_NOT_FOUND:Error: File not found",
    "KEELENGINE_ERROR_FILE_OPEN_FAILURE:Error: File could not be opened",
    "KEELENGINE_ERROR_ACCESS_DENIED:Error: Access denied",
    "KEELENGINE_ERROR_NULL_XML_ROOT:Error: XML configuration tree root is NULL",
    "KEELENGINE_ERROR_NULL_XML_CHILD:Error: XML configuration tree child is NULL",
    "KEELENGINE_ERROR_INVALID_XML:Error: Encountered invalid XML configuration tree",
    "KEELENGINE_ERROR_UNKNOWN_XML_TAG:Error: Encountered unknown XML configuration tag",
    "KEELENGINE_ERROR_ACTION_CANCELED_BY_USER:Notice: Action canceled by user",
    "KEELENGINE_ERROR_EXTERN_ACTION_TIMEOUT:Error: Binary executable took too long to finish.",
    "KEELENGINE_ERROR_UNKNOWN",
};

const char* const kKEELOFFLINE[] = {
    KEEL_FRAME_ROWS(KEELOFFLINE),
    "KEELOFFLINE_ERROR_INTERNAL:Error: KEEL GUI encounted an unspecified internal error",
    "KEELOFFLINE_ERROR_PROCESSING:Notice: KEEL GUI is processing...",
    "KEELOFFLINE_ERROR_XML_CONFIG_PARSE_SUCCESS:Notice: Successfully parsed XML configuration",
    "KEELOFFLINE_ERROR_XML_REQUEST_GENERATE_SUCCESS:Notice: Successfully generated request XML",
    "KEELOFFLINE_ERROR_UNKNOWN",
};

const char* const kXMLLOCALTWPOLMGR[] = {
    KEEL_FRAME_ROWS(XMLLOCALTWPOLMGR),
    "XMLLOCALTWPOLMGR_ERROR_NO_INSTANCE",
    "XMLLOCALTWPOLMGR_ERROR_UNKNOWN",
};

// The prefix of the last row differs from the module's own; kept as it is.
const char* const kVERIFYTIRULECONTEXT[] = {
    KEEL_FRAME_ROWS(VERIFYTIRULECONTEXT),
    "VERIFYCTRULECONTEXT_ERROR_UNKNOWN",
};

// Modules of other family members: the frame and the last row only.
#define KEEL_FRAME_MODULE(M) const char* const k##M[] = {KEEL_FRAME_ROWS(M), #M "_ERROR_UNKNOWN"};
#define KEEL_OWN_MODULE(M)
#define KEEL_DUMMY_SLOT()

// Every slot of the table, in module-index order (0x00 to 0x107; 0x108 is
// the empty last slot).
#define KEEL_RESULT_MODULES                                      \
  KEEL_OWN_MODULE(GLOBAL)                            /* 0x00 */  \
  KEEL_OWN_MODULE(EVENT)                             /* 0x01 */  \
  KEEL_FRAME_MODULE(FILTERCOMMONIMPL)                /* 0x02 */  \
  KEEL_FRAME_MODULE(FILTERMGR)                       /* 0x03 */  \
  KEEL_FRAME_MODULE(IPCTRANSPORT)                    /* 0x04 */  \
  KEEL_FRAME_MODULE(IPCDEPOT)                        /* 0x05 */  \
  KEEL_FRAME_MODULE(ROUTEMGR)                        /* 0x06 */  \
  KEEL_FRAME_MODULE(VVCCONFIG)                       /* 0x07 */  \
  KEEL_FRAME_MODULE(TUNTAPMGR)                       /* 0x08 */  \
  KEEL_FRAME_MODULE(VPNMGR)                          /* 0x09 */  \
  KEEL_FRAME_MODULE(PUBLICPROXIES)                   /* 0x0A */  \
  KEEL_FRAME_MODULE(WINSECAPI)                       /* 0x0B */  \
  KEEL_FRAME_MODULE(DESKTOP)                         /* 0x0C */  \
  KEEL_FRAME_MODULE(MAINTHREAD)                      /* 0x0D */  \
  KEEL_FRAME_MODULE(NETINTERFACE)                    /* 0x0E */  \
  KEEL_FRAME_MODULE(TIMER)                           /* 0x0F */  \
  KEEL_FRAME_MODULE(BROWSER_API)                     /* 0x10 */  \
  KEEL_FRAME_MODULE(TLV)                             /* 0x11 */  \
  KEEL_FRAME_MODULE(QUEUE)                           /* 0x12 */  \
  KEEL_FRAME_MODULE(BROWSERPROXYGLUE)                /* 0x13 */  \
  KEEL_FRAME_MODULE(DATACRYPT)                       /* 0x14 */  \
  KEEL_FRAME_MODULE(HTTPAUTH)                        /* 0x15 */  \
  KEEL_FRAME_MODULE(BROWSERPROXY)                    /* 0x16 */  \
  KEEL_FRAME_MODULE(SERVICES)                        /* 0x17 */  \
  KEEL_FRAME_MODULE(CZLIB)                           /* 0x18 */  \
  KEEL_FRAME_MODULE(TLSTUNNELMGR)                    /* 0x19 */  \
  KEEL_FRAME_MODULE(TUNNELSTATEMGR)                  /* 0x1A */  \
  KEEL_FRAME_MODULE(TLSPROTOCOL)                     /* 0x1B */  \
  KEEL_FRAME_MODULE(VDTPPROTOCOL)                    /* 0x1C */  \
  KEEL_FRAME_MODULE(VSTPPROTOCOL)                    /* 0x1D */  \
  KEEL_FRAME_MODULE(SOCKETTRANSPORT)                 /* 0x1E */  \
  KEEL_FRAME_MODULE(VACONTROL)                       /* 0x1F */  \
  KEEL_FRAME_MODULE(CERTSTORE)                       /* 0x20 */  \
  KEEL_FRAME_MODULE(CERTIFICATE)                     /* 0x21 */  \
  KEEL_FRAME_MODULE(CERT_OSSLADAPTER)                /* 0x22 */  \
  KEEL_FRAME_MODULE(IPADDR)                          /* 0x23 */  \
  KEEL_FRAME_MODULE(OCSPCLIENT)                      /* 0x24 */  \
  KEEL_FRAME_MODULE(SOCKETSUPPORT)                   /* 0x25 */  \
  KEEL_FRAME_MODULE(ROUTEENTRY)                      /* 0x26 */  \
  KEEL_FRAME_MODULE(NETSHCOMMAND)                    /* 0x27 */  \
  KEEL_FRAME_MODULE(NETSHRESPONSE)                   /* 0x28 */  \
  KEEL_FRAME_MODULE(IPV6PACKET)                      /* 0x29 */  \
  KEEL_FRAME_MODULE(SSLTUNNELTRANSPORT)              /* 0x2A */  \
  KEEL_OWN_MODULE(PROCESS_API)                       /* 0x2B */  \
  KEEL_FRAME_MODULE(JOBOBJECT)                       /* 0x2C */  \
  KEEL_FRAME_MODULE(LOGINTERMINALSERVICES)           /* 0x2D */  \
  KEEL_FRAME_MODULE(RSASECURIDSDI)                   /* 0x2E */  \
  KEEL_FRAME_MODULE(AUTOPROXY)                       /* 0x2F */  \
  KEEL_OWN_MODULE(HASH)                              /* 0x30 */  \
  KEEL_FRAME_MODULE(DEVICEPOLICYENFORCER)            /* 0x31 */  \
  KEEL_FRAME_MODULE(PREFERENCEMGR)                   /* 0x32 */  \
  KEEL_FRAME_MODULE(REMOTEINTERFACE)                 /* 0x33 */  \
  KEEL_OWN_MODULE(THREAD)                            /* 0x34 */  \
  KEEL_FRAME_MODULE(FIPSVERIFIER)                    /* 0x35 */  \
  KEEL_FRAME_MODULE(CONNECTIFC)                      /* 0x36 */  \
  KEEL_FRAME_MODULE(CTRANSPORT)                      /* 0x37 */  \
  KEEL_FRAME_MODULE(SDIMGR)                          /* 0x38 */  \
  KEEL_FRAME_MODULE(SCRIPTINGMGR)                    /* 0x39 */  \
  KEEL_FRAME_MODULE(SCRIPTTHREAD)                    /* 0x3A */  \
  KEEL_FRAME_MODULE(IPPACKET)                        /* 0x3B */  \
  KEEL_FRAME_MODULE(IPV4PACKET)                      /* 0x3C */  \
  KEEL_FRAME_MODULE(CONNECTMGR)                      /* 0x3D */  \
  KEEL_FRAME_MODULE(CERTSCEPENROLLER)                /* 0x3E */  \
  KEEL_FRAME_MODULE(CWINHTTP)                        /* 0x3F */  \
  KEEL_FRAME_MODULE(CAPISELECT)                      /* 0x40 */  \
  KEEL_FRAME_MODULE(PLUGINLOADER)                    /* 0x41 */  \
  KEEL_FRAME_MODULE(DNSREQUEST)                      /* 0x42 */  \
  KEEL_OWN_MODULE(FILESYSTEMWATCHER)                 /* 0x43 */  \
  KEEL_FRAME_MODULE(VPNPARAM)                        /* 0x44 */  \
  KEEL_FRAME_MODULE(APIIPC)                          /* 0x45 */  \
  KEEL_FRAME_MODULE(HTTP_SESSION)                    /* 0x46 */  \
  KEEL_FRAME_MODULE(NETENVIRONMENT)                  /* 0x47 */  \
  KEEL_FRAME_MODULE(NETWORKLIST)                     /* 0x48 */  \
  KEEL_FRAME_MODULE(HOSTCONFIGMGR)                   /* 0x49 */  \
  KEEL_FRAME_MODULE(IPCUTIL)                         /* 0x4A */  \
  KEEL_FRAME_MODULE(TND)                             /* 0x4B */  \
  KEEL_FRAME_MODULE(DHCPNOTIFICATIONS)               /* 0x4C */  \
  KEEL_FRAME_MODULE(URL)                             /* 0x4D */  \
  KEEL_FRAME_MODULE(FIREWALLRULELIST)                /* 0x4E */  \
  KEEL_FRAME_MODULE(FIREWALLMGR)                     /* 0x4F */  \
  KEEL_FRAME_MODULE(FIREWALLCOMMONIMPL)              /* 0x50 */  \
  KEEL_FRAME_MODULE(SELECTIONCACHE)                  /* 0x51 */  \
  KEEL_FRAME_MODULE(LOGINUTILS)                      /* 0x52 */  \
  KEEL_FRAME_MODULE(HEADENDSELECTION)                /* 0x53 */  \
  KEEL_FRAME_MODULE(HTTP_SESSION_ASYNC)              /* 0x54 */  \
  KEEL_FRAME_MODULE(HOSTLOCATOR)                     /* 0x55 */  \
  KEEL_FRAME_MODULE(SERVICESASYNC)                   /* 0x56 */  \
  KEEL_FRAME_MODULE(TLSTRANSPORT)                    /* 0x57 */  \
  KEEL_OWN_MODULE(DIRECTORY)                         /* 0x58 */  \
  KEEL_OWN_MODULE(OPENSSLUTILITY)                    /* 0x59 */  \
  KEEL_FRAME_MODULE(PLUGINTUNNELMGR)                 /* 0x5A */  \
  KEEL_FRAME_MODULE(AGGAUTH)                         /* 0x5B */  \
  KEEL_FRAME_MODULE(IPSECTUNNELSTATEMGR)             /* 0x5C */  \
  KEEL_FRAME_MODULE(IPSECTUNNELMGR)                  /* 0x5D */  \
  KEEL_FRAME_MODULE(IPSECPROTOCOL)                   /* 0x5E */  \
  KEEL_FRAME_MODULE(CONNECTIONCRYPTO)                /* 0x5F */  \
  KEEL_FRAME_MODULE(IKECONNECTIONCRYPTO)             /* 0x60 */  \
  KEEL_FRAME_MODULE(IPSECCONNECTIONCRYPTO)           /* 0x61 */  \
  KEEL_FRAME_MODULE(GRANITESHIM)                     /* 0x62 */  \
  KEEL_FRAME_MODULE(IPSECCRYPTO)                     /* 0x63 */  \
  KEEL_FRAME_MODULE(HTTP_PROBE_ASYNC)                /* 0x64 */  \
  KEEL_FRAME_MODULE(PROXYCOMMON)                     /* 0x65 */  \
  KEEL_FRAME_MODULE(VIRTUALADAPTER)                  /* 0x66 */  \
  KEEL_FRAME_MODULE(ESP)                             /* 0x67 */  \
  KEEL_FRAME_MODULE(EAPMGR)                          /* 0x68 */  \
  KEEL_FRAME_MODULE(MANIFEST)                        /* 0x69 */  \
  KEEL_FRAME_MODULE(DNLDRARGS)                       /* 0x6A */  \
  KEEL_FRAME_MODULE(CERTIKEADAPTER)                  /* 0x6B */  \
  KEEL_FRAME_MODULE(CAPI_CERTVIEWSELECT)             /* 0x6C */  \
  KEEL_FRAME_MODULE(SCEPMGR)                         /* 0x6D */  \
  KEEL_FRAME_MODULE(SCEPIFC)                         /* 0x6E */  \
  KEEL_DUMMY_SLOT()                                  /* 0x6F */  \
  KEEL_FRAME_MODULE(NETBINDING)                      /* 0x70 */  \
  KEEL_FRAME_MODULE(CWINPROXYUTILITY)                /* 0x71 */  \
  KEEL_FRAME_MODULE(PROFILEMGR)                      /* 0x72 */  \
  KEEL_FRAME_MODULE(OBFUSCATIONMGR)                  /* 0x73 */  \
  KEEL_FRAME_MODULE(TUNNELPROTOCOLDPDMGR)            /* 0x74 */  \
  KEEL_FRAME_MODULE(UNIXFWUTIL)                      /* 0x75 */  \
  KEEL_FRAME_MODULE(FILEDOWNLOADER)                  /* 0x76 */  \
  KEEL_FRAME_MODULE(DOWNLOADER)                      /* 0x77 */  \
  KEEL_FRAME_MODULE(MANIFESTMGR)                     /* 0x78 */  \
  KEEL_FRAME_MODULE(SWSOFTOKENIFC)                   /* 0x79 */  \
  KEEL_FRAME_MODULE(REMOTEFILESYNCHRONIZER)          /* 0x7A */  \
  KEEL_FRAME_MODULE(CREDENTIALPREFILL)               /* 0x7B */  \
  KEEL_FRAME_MODULE(APPLESSLVPNPLUGIN)               /* 0x7C */  \
  KEEL_DUMMY_SLOT()                                  /* 0x7D */  \
  KEEL_FRAME_MODULE(TIDEWALKERAUTHENTICATOR)         /* 0x7E */  \
  KEEL_FRAME_MODULE(APPLEVPNCONFIG)                  /* 0x7F */  \
  KEEL_FRAME_MODULE(APPLEVPNCONFIGSMGR)              /* 0x80 */  \
  KEEL_FRAME_MODULE(APPPLUGINIPC)                    /* 0x81 */  \
  KEEL_FRAME_MODULE(APPLEVPNCERTIFICATE)             /* 0x82 */  \
  KEEL_FRAME_MODULE(APPLEVPNCERTIFICATELIST)         /* 0x83 */  \
  KEEL_FRAME_MODULE(APPLEVPNPROFILEIMPORT)           /* 0x84 */  \
  KEEL_DUMMY_SLOT()                                  /* 0x85 */  \
  KEEL_DUMMY_SLOT()                                  /* 0x86 */  \
  KEEL_DUMMY_SLOT()                                  /* 0x87 */  \
  KEEL_DUMMY_SLOT()                                  /* 0x88 */  \
  KEEL_DUMMY_SLOT()                                  /* 0x89 */  \
  KEEL_FRAME_MODULE(NLMGR)                           /* 0x8A */  \
  KEEL_FRAME_MODULE(NETEVENTSINK)                    /* 0x8B */  \
  KEEL_OWN_MODULE(EVENTLIST)                         /* 0x8C */  \
  KEEL_FRAME_MODULE(EXECUTIONCONTEXT)                /* 0x8D */  \
  KEEL_FRAME_MODULE(TIMERLIST)                       /* 0x8E */  \
  KEEL_FRAME_MODULE(CLZS)                            /* 0x8F */  \
  KEEL_FRAME_MODULE(CADAPTERNETWORKSTATEIFC)         /* 0x90 */  \
  KEEL_FRAME_MODULE(CERTPKCS7)                       /* 0x91 */  \
  KEEL_FRAME_MODULE(JNIPRIVATEAPI)                   /* 0x92 */  \
  KEEL_FRAME_MODULE(ANDROIDIPCMESSAGE)               /* 0x93 */  \
  KEEL_FRAME_MODULE(ANDROIDIPCSOCKET)                /* 0x94 */  \
  KEEL_FRAME_MODULE(ANDROIDSYSUTILS)                 /* 0x95 */  \
  KEEL_FRAME_MODULE(IANDROIDCOMMAND)                 /* 0x96 */  \
  KEEL_FRAME_MODULE(ANDROID_SNAK_SYSTEM)             /* 0x97 */  \
  KEEL_FRAME_MODULE(ANDROID_DNS_MGR)                 /* 0x98 */  \
  KEEL_FRAME_MODULE(NCSS_HELPER)                     /* 0x99 */  \
  KEEL_FRAME_MODULE(APP_SOCKET_IDENTIFIER)           /* 0x9A */  \
  KEEL_FRAME_MODULE(SHARED_UID_RESOLVER)             /* 0x9B */  \
  KEEL_FRAME_MODULE(STREAM_PACKET)                   /* 0x9C */  \
  KEEL_FRAME_MODULE(FILEUPLOADER)                    /* 0x9D */  \
  KEEL_OWN_MODULE(CSTORAGEPATH)                      /* 0x9E */  \
  KEEL_FRAME_MODULE(DNSPLUGINMGR)                    /* 0x9F */  \
  KEEL_FRAME_MODULE(HOSTMGRCOMMONIMPL)               /* 0xA0 */  \
  KEEL_FRAME_MODULE(SESSIONINFO)                     /* 0xA1 */  \
  KEEL_FRAME_MODULE(IPADDRLIST)                      /* 0xA2 */  \
  KEEL_FRAME_MODULE(IFROUTEMONITOR)                  /* 0xA3 */  \
  KEEL_FRAME_MODULE(ROUTETABLE)                      /* 0xA4 */  \
  KEEL_FRAME_MODULE(WSA_SERVICES)                    /* 0xA5 */  \
  KEEL_FRAME_MODULE(HOSTSFILEUTILITY)                /* 0xA6 */  \
  KEEL_FRAME_MODULE(VPNSTATSWRITER)                  /* 0xA7 */  \
  KEEL_FRAME_MODULE(DOWNLOADERMAJOR)                 /* 0xA8 */  \
  KEEL_FRAME_MODULE(CAPICERTUTILS)                   /* 0xA9 */  \
  KEEL_FRAME_MODULE(SUBJECTALTNAME)                  /* 0xAA */  \
  KEEL_FRAME_MODULE(EMAILTHREAD)                     /* 0xAB */  \
  KEEL_FRAME_MODULE(HOSTMGR)                         /* 0xAC */  \
  KEEL_FRAME_MODULE(ELFFILESECTIONDATA)              /* 0xAD */  \
  KEEL_FRAME_MODULE(THREADLOCALSTORAGE)              /* 0xAE */  \
  KEEL_FRAME_MODULE(PHONEHOMEVPN)                    /* 0xAF */  \
  KEEL_OWN_MODULE(KEELENGINE)                        /* 0xB0 */  \
  KEEL_OWN_MODULE(KEELOFFLINE)                       /* 0xB1 */  \
  KEEL_FRAME_MODULE(CERTIFICATEINFO)                 /* 0xB2 */  \
  KEEL_FRAME_MODULE(CERTPKCS12)                      /* 0xB3 */  \
  KEEL_FRAME_MODULE(DOWNLOADERPLUGININVOKE)          /* 0xB4 */  \
  KEEL_FRAME_MODULE(LOGINUTILSMGR)                   /* 0xB5 */  \
  KEEL_OWN_MODULE(XMLLOCALTWPOLMGR)                  /* 0xB6 */  \
  KEEL_FRAME_MODULE(VERIFY_FILE_SIGNATURE)           /* 0xB7 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xB8 */  \
  KEEL_FRAME_MODULE(MACPROXYUTILITY)                 /* 0xB9 */  \
  KEEL_FRAME_MODULE(LINUXPROXYUTILITY)               /* 0xBA */  \
  KEEL_FRAME_MODULE(QOS_WRAPPER)                     /* 0xBB */  \
  KEEL_FRAME_MODULE(IMSPRODUCER)                     /* 0xBC */  \
  KEEL_FRAME_MODULE(CLOUDDOWNLOADERINVOKE)           /* 0xBD */  \
  KEEL_FRAME_MODULE(CLOUDDOWNLOADERMAINTHREAD)       /* 0xBE */  \
  KEEL_FRAME_MODULE(DOWNLOADERRELAUNCHER)            /* 0xBF */  \
  KEEL_FRAME_MODULE(FASTSTARTUPMONITOR)              /* 0xC0 */  \
  KEEL_FRAME_MODULE(DYNSPLITTUNLISTENER)             /* 0xC1 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xC2 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xC3 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xC4 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xC5 */  \
  KEEL_FRAME_MODULE(PER_APP_POLICY)                  /* 0xC6 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xC7 */  \
  KEEL_FRAME_MODULE(NETWORK_INFO)                    /* 0xC8 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xC9 */  \
  KEEL_FRAME_MODULE(KDFLOADER)                       /* 0xCA */  \
  KEEL_FRAME_MODULE(TCPTRANSPORTRT)                  /* 0xCB */  \
  KEEL_FRAME_MODULE(TLSTUNNELMGRRT)                  /* 0xCC */  \
  KEEL_FRAME_MODULE(WINAPPCERTUTILS)                 /* 0xCD */  \
  KEEL_DUMMY_SLOT()                                  /* 0xCE */  \
  KEEL_FRAME_MODULE(UWP_VPN_PLUGIN)                  /* 0xCF */  \
  KEEL_FRAME_MODULE(HOST_BOUND_PACKET_NOTIFIER)      /* 0xD0 */  \
  KEEL_FRAME_MODULE(EVENTMGR)                        /* 0xD1 */  \
  KEEL_FRAME_MODULE(UDP_DNS_PACKET_PROXY)            /* 0xD2 */  \
  KEEL_FRAME_MODULE(UDP_BASIC_SOCKET)                /* 0xD3 */  \
  KEEL_FRAME_MODULE(MGMTAPP)                         /* 0xD4 */  \
  KEEL_FRAME_MODULE(MGMTTUNHELPER)                   /* 0xD5 */  \
  KEEL_FRAME_MODULE(OBFUSCATIONHELPER)               /* 0xD6 */  \
  KEEL_FRAME_MODULE(SWUPDATEMONITORMAINTHREAD)       /* 0xD7 */  \
  KEEL_FRAME_MODULE(NAMEDMUTEX)                      /* 0xD8 */  \
  KEEL_FRAME_MODULE(JSONIPCCLIENT)                   /* 0xD9 */  \
  KEEL_FRAME_MODULE(JSONIPCSERVER)                   /* 0xDA */  \
  KEEL_FRAME_MODULE(BROWSERIPCCLIENT)                /* 0xDB */  \
  KEEL_FRAME_MODULE(BROWSERIPCSERVER)                /* 0xDC */  \
  KEEL_FRAME_MODULE(WEBHELPERPLUGIN)                 /* 0xDD */  \
  KEEL_FRAME_MODULE(APPLOGCUSTOMCONFIG)              /* 0xDE */  \
  KEEL_FRAME_MODULE(FLOW_TRACKER_MANAGER)            /* 0xDF */  \
  KEEL_FRAME_MODULE(PACKET_PARSER)                   /* 0xE0 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xE1 */  \
  KEEL_FRAME_MODULE(PDU)                             /* 0xE2 */  \
  KEEL_FRAME_MODULE(FLOW_TRACKER)                    /* 0xE3 */  \
  KEEL_FRAME_MODULE(L3L4_PROXY)                      /* 0xE4 */  \
  KEEL_FRAME_MODULE(BYTE_BUFFER)                     /* 0xE5 */  \
  KEEL_FRAME_MODULE(BOOST_SOCKET)                    /* 0xE6 */  \
  KEEL_FRAME_MODULE(ANI_CONTROLLER)                  /* 0xE7 */  \
  KEEL_FRAME_MODULE(TCP_PROXY_MANAGER2)              /* 0xE8 */  \
  KEEL_FRAME_MODULE(TCP_PROXY2)                      /* 0xE9 */  \
  KEEL_FRAME_MODULE(FLOW_PROXY)                      /* 0xEA */  \
  KEEL_FRAME_MODULE(HTTP_CLIENT)                     /* 0xEB */  \
  KEEL_FRAME_MODULE(ANI_CONFIGURATION)               /* 0xEC */  \
  KEEL_FRAME_MODULE(CONCURRENT_QUEUE)                /* 0xED */  \
  KEEL_FRAME_MODULE(ANI_POLICY_ENFORCER)             /* 0xEE */  \
  KEEL_FRAME_MODULE(ASYNC_TASK_THREAD)               /* 0xEF */  \
  KEEL_FRAME_MODULE(NETWORK_INTERFACE_MANAGER)       /* 0xF0 */  \
  KEEL_DUMMY_SLOT()                                  /* 0xF1 */  \
  KEEL_FRAME_MODULE(MSDW_POLICY)                     /* 0xF2 */  \
  KEEL_FRAME_MODULE(PBR_CHANNEL)                     /* 0xF3 */  \
  KEEL_FRAME_MODULE(PBR_MANAGER)                     /* 0xF4 */  \
  KEEL_FRAME_MODULE(TCP_RETRANSMIT_SM)               /* 0xF5 */  \
  KEEL_FRAME_MODULE(FLOW_NAT)                        /* 0xF6 */  \
  KEEL_FRAME_MODULE(DNS_CACHE)                       /* 0xF7 */  \
  KEEL_FRAME_MODULE(DBUSNMHELPER)                    /* 0xF8 */  \
  KEEL_FRAME_MODULE(DBUSCLIENT)                      /* 0xF9 */  \
  KEEL_FRAME_MODULE(DNSCONFIGSANITIZER)              /* 0xFA */  \
  KEEL_FRAME_MODULE(IPCP2PCONNECTION)                /* 0xFB */  \
  KEEL_FRAME_MODULE(IPCP2PCONNECTOR)                 /* 0xFC */  \
  KEEL_FRAME_MODULE(IPCP2PACCEPTOR)                  /* 0xFD */  \
  KEEL_FRAME_MODULE(DOWNLOADERCERTUTIL)              /* 0xFE */  \
  KEEL_FRAME_MODULE(MTUADJUSTMENTCACHE)              /* 0xFF */  \
  KEEL_FRAME_MODULE(BROWSER_POPUPMANAGER)            /* 0x100 */ \
  KEEL_FRAME_MODULE(HTTP_SERVER)                     /* 0x101 */ \
  KEEL_FRAME_MODULE(EXTERNAL_BROWSER_SSO_CONTROLLER) /* 0x102 */ \
  KEEL_FRAME_MODULE(IPCONFIGMON)                     /* 0x103 */ \
  KEEL_FRAME_MODULE(WMINETWORKADAPTER)               /* 0x104 */ \
  KEEL_FRAME_MODULE(KEELUPLOADER)                    /* 0x105 */ \
  KEEL_OWN_MODULE(VERIFYTIRULECONTEXT)               /* 0x106 */ \
  KEEL_FRAME_MODULE(VERIFYTEMPLATEIDENTIFIER)        /* 0x107 */

KEEL_RESULT_MODULES

#undef KEEL_FRAME_MODULE
#undef KEEL_OWN_MODULE
#undef KEEL_DUMMY_SLOT

template <typename T, uint32_t N>
constexpr ResultCodeModule Module(const T (&rows)[N]) {
  return ResultCodeModule{N, rows};
}

}  // namespace

#define KEEL_FRAME_MODULE(M) Module(k##M),
#define KEEL_OWN_MODULE(M) Module(k##M),
#define KEEL_DUMMY_SLOT() Module(kDummyRows),

const ResultCodeModule g_resultCodeModules[kResultCodeModuleCount] = {
    KEEL_RESULT_MODULES ResultCodeModule{0, nullptr},  // 0x108: the last slot has no rows.
};

#undef KEEL_FRAME_MODULE
#undef KEEL_OWN_MODULE
#undef KEEL_DUMMY_SLOT

const char* DescribeResultCode(ResultCode code, uint32_t moduleCount,
                               const ResultCodeModule* table) {
  static const char kUnknown[] = "unknown";
  // Only the top seven bits are tested, so 0xFF... passes as well.
  if ((code & kResultClassMask) != kResultClassMask)
    return kUnknown;
  if (moduleCount == 0 || table == nullptr)
    return kUnknown;
  const uint32_t module = (code >> 16) & 0xFF;
  if (module >= moduleCount)
    return kUnknown;
  const ResultCodeModule& entry = table[module];
  if (entry.rows == nullptr || entry.count == 0)
    return kUnknown;
  const uint32_t row = code & 0xFFFF;
  if (row < entry.count && entry.rows[row] != nullptr)
    return entry.rows[row];
  // An unknown row falls to the module's own last row.
  const char* last = entry.rows[entry.count - 1];
  return last != nullptr ? last : kUnknown;
}
