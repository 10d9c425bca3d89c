// keelcli: the command-line entry of the reporting tool.
//
// The entry opens logging, starts the process-wide services, turns the
// arguments into the global settings below, prints who it is, checks where
// the bundle goes and hands over to one bundle engine. Every console line of
// the entry goes through cliPrint or cliPrintError, so all of them end in
// carriage return and line feed.
//
// Everything here runs on the main thread only; the settings are written
// during start-up and the argument scan, and only read after that.
#ifndef TOOLS_KEEL_KEELCLI_KEELCLI_H_
#define TOOLS_KEEL_KEELCLI_KEELCLI_H_

#include <string>

#include "Common/Utility/HostPaths.h"

// Process-wide settings of one run.
extern bool g_cliMode;                // set by initialize; the engine reports to the console
extern bool g_excludeMsinfo;          // no option turns it on
extern bool g_clearLogs;              // -clearlogs
extern bool g_twLogs;                 // -twlogs: include the legacy client's logs
extern std::string g_bundleLocation;  // default from initialize, then -dst

// The product's version text.
extern const char* const kKeelVersion;

// The one-line rights notice that ends the version text, in English: the
// key under which a message catalogue may hold its translation.
const char* legalNotice();

// Writes the formatted text, then "\r\n", then flushes: standard output for
// cliPrint, standard error for cliPrintError.
void cliPrint(const char* format, ...) __attribute__((format(printf, 1, 2)));
void cliPrintError(const char* format, ...) __attribute__((format(printf, 1, 2)));

void printUsage();
void printVersion();

// Prints the device identifier hashed with `hashName` ("sha1" or "sha256"),
// reading the host's disks through `paths`; returns the exit status, 0 or 1.
int printDeviceId(const char* hashName, const HostPaths& paths = HostPaths());

// Scans argv[1] .. argv[argc - 1] once, left to right. Sets *exitRequested
// (false first) when an option did its whole job. The result becomes the
// exit status when it is not 0 or when *exitRequested is set. -udid and
// -udid_legacy read the host's disks through `paths`.
int parseArguments(int argc, char** argv, bool* exitRequested,
                   const HostPaths& paths = HostPaths());

// Starts the process-wide services and sets the default bundle location.
bool initialize();

// True when the folder part of `location` (everything before its last "/",
// or the whole location without one) exists on the file system.
bool bundleFolderExists(const std::string& location);

// What the location check finds about the folder a bundle goes to.
enum class BundleFolderState {
  kUsable,
  kMissing,           // bundleFolderExists is false
  kUntrusted,         // reached through a link or folder of another user
                      // that leads into a folder that user does not own
  kWritableByOthers,  // every user may write it, and it has no sticky bit
};

// Checks the folder part of `location`: that it exists (as
// bundleFolderExists), then the folder the bundle is written into, reached
// through TrustedPath. A folder that can't be opened for another reason
// (a file in its place) is left to the step that writes the bundle.
BundleFolderState checkBundleFolder(const std::string& location);

// Builds the bundle engine for this run and hands over to it.
void runBundleEngine();

// Prints the version and, unless logs are to be cleared, the bundle option,
// location and flags. Returns false, after printing why on standard error,
// when checkBundleFolder refuses the folder of the bundle location.
bool announceRun(bool customRun);

// The whole process: returns the exit status.
int keelMain(int argc, char** argv);

#endif  // TOOLS_KEEL_KEELCLI_KEELCLI_H_
