#include "tools/KEEL/KEELCLI/keelcli.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <memory>

#include "Common/Log/Log.h"
#include "Common/Utility/InstanceSmartPtr.h"
#include "Common/Utility/StoragePath.h"
#include "Common/Utility/TrustedPath.h"
#include "Common/Utility/sysutils.h"
#include "Common/Xml/XmlLocalTWPolMgr.h"
#include "Common/i18n/MsgCatalog.h"
#include "CommonCrypt/DeviceIDHash.h"
#include "tools/KEEL/KEELCLI/ProcessStart.h"
#include "tools/KEEL/KEELEngine/implementations/KEELEngine.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

bool g_cliMode = false;
bool g_excludeMsinfo = false;
bool g_clearLogs = false;
bool g_twLogs = false;
std::string g_bundleLocation;

const char* const kKeelVersion = "5.1.9.113";

namespace {

// The identity under which the whole process logs.
const char kLogIdentity[] = "vtc_keelcli";

// Keep the process-wide singletons alive from initialize to exit. Built
// before any instance exists, so both start out empty.
CInstanceSmartPtr<CStoragePath> g_storagePath;
CInstanceSmartPtr<XmlLocalTWPolMgr> g_policyManager;

void PrintLine(FILE* stream, const char* format, va_list arguments) {
  vfprintf(stream, format, arguments);
  fputs("\r\n", stream);
  fflush(stream);
}

void PrintInvalidArguments() {
  cliPrintError("%s", "");
  cliPrintError("Invalid arguments. Try \"-h\" or \"-help\" option for help.");
  cliPrintError("%s", "");
}

void PrintMissingDestination() {
  cliPrintError("%s", "");
  cliPrintError("You need to specify destination path.");
  cliPrintError("%s", "");
}

// The second line of the refusal of a bundle location, by what was found.
const char* InvalidLocationReason(BundleFolderState state) {
  switch (state) {
    case BundleFolderState::kUntrusted:
      return "The destination folder is reached through a link or folder of another user.";
    case BundleFolderState::kWritableByOthers:
      return "Other users can write to the destination folder and could replace the bundle "
             "after the run.";
    default:
      return "The destination folder does not exist.";
  }
}

void PrintInvalidLocation(const std::string& location, BundleFolderState state) {
  cliPrintError("%s", "");
  cliPrintError("Invalid bundle location: %s", location.c_str());
  cliPrintError("%s", InvalidLocationReason(state));
  cliPrintError("%s", "");
}

// Steps of the entry between opening and closing the log scope.
int RunCommandLine(int argc, char** argv) {
  if (!initialize()) {
    cliPrintError("Failed to initialize keelcli...");
    return 1;
  }
  const bool customRun = argc > 1;
  if (customRun) {
    bool exitRequested = false;
    const int status = parseArguments(argc, argv, &exitRequested);
    if (exitRequested || status != 0)
      return status;
  }
  if (!announceRun(customRun))
    return 1;
  cliPrint("%s", "");
  // The engine reports its own failures; after a run the status is 0.
  runBundleEngine();
  return 0;
}

}  // namespace

const char* legalNotice() {
  return "Copyright (c) 2026 Velon Networks. All rights reserved.";
}

void cliPrint(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  PrintLine(stdout, format, arguments);
  va_end(arguments);
}

void cliPrintError(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  PrintLine(stderr, format, arguments);
  va_end(arguments);
}

void printUsage() {
  static const char* const kLines[] = {
      "",
      "DESCRIPTION:",
      "",
      "KEEL is a tool that helps to bundle the appropriate log files and diagnostic information "
      "that can be used for analyzing and debugging the Velon Tessel Client connections.",
      "",
      "USAGE:",
      "",
      "    keelcli [options]",
      "",
      "    Default option is used if options are not specified.",
      "",
      "",
      "    Options:",
      "",
      "    -clearlogs",
      "          Clear all logs.",
      "",
      "    -dst <destination>",
      "          Save the bundle to the specified destination.",
      "",
      "    -h, -help",
      "          Display the usage of keelcli.",
      "",
      "    -v, -version",
      "          Display version information.",
      "",
      "    -u, -udid",
      "          Display global unique device identifier information.",
      "",
      "    -ul, -udid_legacy",
      "          Display unique device identifier(legacy) information.",
      "",
      "    -twlogs",
      "          Include Legacy - Velon Tidewalker Tessel Mobility Client logs.",
      "",
  };
  for (const char* line : kLines)
    cliPrint("%s", line);
}

void printVersion() {
  cliPrint("%s", "");
  // The second, empty field leaves a blank ahead of the full stop.
  cliPrint("Velon Tessel Client - Keel Reporting Tool %s %s.", kKeelVersion, "");
  cliPrint("%s", "");
  // The notice carries a line feed of its own, so one more empty line follows.
  // The notice is the one line of the tool that a message catalogue may
  // translate; the English text is its key.
  std::string notice;
  MsgCatalog::getMessage(legalNotice(), notice);
  cliPrint("%s\n", notice.c_str());
}

int parseArguments(int argc, char** argv, bool* exitRequested, const HostPaths& paths) {
  *exitRequested = false;
  for (int i = 1; i < argc; ++i) {
    const char* argument = argv[i];
    if (strcmp(argument, "-clearlogs") == 0) {
      g_clearLogs = true;
    } else if (strcmp(argument, "-dst") == 0) {
      if (i + 1 >= argc) {
        PrintMissingDestination();
        return 1;
      }
      // The value is taken as it stands, even when it looks like an option.
      g_bundleLocation = argv[++i];
    } else if (strcmp(argument, "-help") == 0 || strcmp(argument, "-h") == 0) {
      printUsage();
      *exitRequested = true;
      return 0;
    } else if (strcmp(argument, "-version") == 0 || strcmp(argument, "-v") == 0) {
      printVersion();
      *exitRequested = true;
      return 0;
    } else if (strcmp(argument, "-udid") == 0 || strcmp(argument, "-u") == 0) {
      *exitRequested = true;
      return printDeviceId("sha1", paths);
    } else if (strcmp(argument, "-udid_legacy") == 0 || strcmp(argument, "-ul") == 0) {
      // The legacy identifier is the one hashed with SHA-256.
      *exitRequested = true;
      return printDeviceId("sha256", paths);
    } else if (strcmp(argument, "-twlogs") == 0) {
      g_twLogs = true;
    } else {
      PrintInvalidArguments();
      return 1;
    }
  }
  return 0;
}

// Starts the process-wide services and names the default bundle. Every
// failure is logged and passed over, so it always answers true.
bool initialize() {
  g_cliMode = true;
  CStoragePath* storagePath = nullptr;
  ResultCode result = CStoragePath::CreateSingletonInstance(&storagePath);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CStoragePath::CreateSingletonInstance", result);
  } else {
    g_storagePath.ReplaceInstance(storagePath);
  }
  XmlLocalTWPolMgr* policyManager = nullptr;
  result = XmlLocalTWPolMgr::CreateSingletonInstance(&policyManager);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "XmlLocalTWPolMgr::createSingletonInstance", result);
  } else {
    g_policyManager.ReplaceInstance(policyManager);
    result = policyManager->LoadLocalTidewalkerPolicy();
    if (result != 0)
      KLOG_RC(LOG_LEVEL_E, "XmlLocalTWPolMgr::LoadLocalTidewalkerPolicy", result);
  }
  // The Desktop lookup falls back to "$HOME/Desktop/"; an empty answer leaves
  // the location empty, and the entry then rejects it.
  const std::string desktop = helperUtil::translatePath(helperUtil::getDesktopFolder());
  if (!desktop.empty())
    g_bundleLocation = desktop + "KEELBundle" + getTimeNowString(1) + ".zip";
  return true;
}

bool bundleFolderExists(const std::string& location) {
  // Only the existence of what stands before the last slash is asked for;
  // whether it is a folder is left to the step that writes the bundle.
  const size_t lastSlash = location.rfind('/');
  const std::string folder =
      lastSlash == std::string::npos ? location : location.substr(0, lastSlash);
  struct stat status;
  return stat(folder.c_str(), &status) == 0;
}

BundleFolderState checkBundleFolder(const std::string& location) {
  if (!bundleFolderExists(location))
    return BundleFolderState::kMissing;
  // The folder the bundle is written into, taken as the archive writer
  // takes it, and reached the way it reaches it.
  const size_t lastSlash = location.rfind('/');
  const std::string folder = lastSlash == std::string::npos ? "."
                             : lastSlash == 0               ? "/"
                                                            : location.substr(0, lastSlash);
  const TrustedPathResult opened = TrustedPath::openFolder(folder);
  if (!opened.ok()) {
    // A step the trust rule refused. Anything else (a file in place of the
    // folder, say) is left to the step that writes the bundle, as before.
    if (opened.error == ELOOP || opened.error == EPERM) {
      KLOG_W("The bundle folder \"%s\" is refused: %s", folder.c_str(), opened.reason.c_str());
      return BundleFolderState::kUntrusted;
    }
    return BundleFolderState::kUsable;
  }
  // Without the sticky bit, anyone who may write the folder may also
  // rename or remove the finished bundle and put another in its place.
  const mode_t mode = opened.info.st_mode;
  if ((mode & S_IWOTH) != 0 && (mode & S_ISVTX) == 0)
    return BundleFolderState::kWritableByOthers;
  return BundleFolderState::kUsable;
}

// Builds the run's one engine and hands over to it. The engine's result is
// not looked at: what went wrong was shown on the console already.
void runBundleEngine() {
  helperUtil::setCliMode(g_cliMode);
  // Shared: the pool's queued jobs keep the engine alive through it.
  std::shared_ptr<KEELEngine> engine =
      std::make_shared<KEELEngine>("", "", g_bundleLocation, "", g_clearLogs, g_twLogs, true);
  engine->run();
  engine.reset();
}

int printDeviceId(const char* hashName, const HostPaths& paths) {
  std::string identifier;
  if (GetDeviceUniqueIDHash(identifier, hashName, paths) != 0) {
    cliPrintError("Error in retrieving device ID information.");
    return 1;
  }
  cliPrint("UDID : %s\n", identifier.c_str());
  return 0;
}

bool announceRun(bool customRun) {
  printVersion();
  if (g_clearLogs)
    return true;  // a clear run makes no bundle, so its location is not looked at
  cliPrint("Bundle option selected: %s", customRun ? "custom" : "default");
  const BundleFolderState state = checkBundleFolder(g_bundleLocation);
  if (state != BundleFolderState::kUsable) {
    PrintInvalidLocation(g_bundleLocation, state);
    return false;
  }
  cliPrint("Bundle location: %s", g_bundleLocation.c_str());
  if (g_excludeMsinfo)
    cliPrint("Exclude msinfo file from the bundle: true");
  if (g_twLogs)
    cliPrint("Including Legacy - Velon Tidewalker Tessel Mobility Client logs.");
  return true;
}

int keelMain(int argc, char** argv) {
  // Before anything opens a descriptor: the first ones opened must not take
  // the place of a closed standard stream.
  makeStandardDescriptorsValid();
  catchWriteSignals();
  // Logging is open before anything else runs and closes as the last step,
  // on every way out.
  ResultCode logResult = 0;
  CLogScope logScope(&logResult, kLogIdentity, nullptr);
  return RunCommandLine(argc, argv);
}
