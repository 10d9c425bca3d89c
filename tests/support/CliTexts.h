// The console texts of keelcli that the tests compare byte for byte: the
// usage, the version block and the fixed error blocks.
#ifndef TESTS_SUPPORT_CLITEXTS_H_
#define TESTS_SUPPORT_CLITEXTS_H_

#include <string>

namespace keeltest {

constexpr char kUsage[] =
    "\r\n"
    "DESCRIPTION:\r\n"
    "\r\n"
    "KEEL is a tool that helps to bundle the appropriate log files and diagnostic information that "
    "can be used for analyzing and debugging the Velon Tessel Client connections.\r\n"
    "\r\n"
    "USAGE:\r\n"
    "\r\n"
    "    keelcli [options]\r\n"
    "\r\n"
    "    Default option is used if options are not specified.\r\n"
    "\r\n"
    "\r\n"
    "    Options:\r\n"
    "\r\n"
    "    -clearlogs\r\n"
    "          Clear all logs.\r\n"
    "\r\n"
    "    -dst <destination>\r\n"
    "          Save the bundle to the specified destination.\r\n"
    "\r\n"
    "    -h, -help\r\n"
    "          Display the usage of keelcli.\r\n"
    "\r\n"
    "    -v, -version\r\n"
    "          Display version information.\r\n"
    "\r\n"
    "    -u, -udid\r\n"
    "          Display global unique device identifier information.\r\n"
    "\r\n"
    "    -ul, -udid_legacy\r\n"
    "          Display unique device identifier(legacy) information.\r\n"
    "\r\n"
    "    -twlogs\r\n"
    "          Include Legacy - Velon Tidewalker Tessel Mobility Client logs.\r\n"
    "\r\n";

constexpr char kVersion[] =
    "\r\n"
    "Velon Tessel Client - Keel Reporting Tool 5.1.9.113 .\r\n"
    "\r\n"
    "Copyright (c) 2026 Velon Networks. All rights reserved.\n\r\n";

constexpr char kInvalidArguments[] =
    "\r\nInvalid arguments. Try \"-h\" or \"-help\" option for help.\r\n\r\n";

constexpr char kMissingDestination[] = "\r\nYou need to specify destination path.\r\n\r\n";

inline std::string InvalidLocation(const std::string& location) {
  return "\r\nInvalid bundle location: " + location +
         "\r\nThe destination folder does not exist.\r\n\r\n";
}

}  // namespace keeltest

#endif  // TESTS_SUPPORT_CLITEXTS_H_
