#include "tools/KEEL/KEELEngine/implementations/Env.h"

#include "Common/IPC/ProcessAPI_unix.h"
#include "Common/Utility/CommandShell.h"
#include "Common/Utility/HostOSInfo.h"
#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

Env::~Env() = default;

Env* Env::Default() {
  static Env* const host = new Env();
  return host;
}

const HostPaths& Env::paths() const {
  return m_paths;
}

clock_t Env::processorClock() const {
  return ::clock();
}

std::string Env::localTimeText() const {
  return getTimeNowString(3);
}

std::string Env::osDescription() const {
  HostOSInfo info;
  getHostOSInfo(info, paths());
  return helperUtil::getOsDescription(info);
}

std::string Env::userName() const {
  return helperUtil::getSessionUser();
}

std::string Env::absolutePath(const std::string& path) const {
  return helperUtil::toAbsolutePath(path);
}

std::unique_ptr<CProcessApi> Env::newProcessApi() const {
  return std::unique_ptr<CProcessApi>(new CProcessApi());
}

ResultCode Env::runShell(const std::string& command, std::ostream& output) const {
  return CCommandShell(command.c_str()).Execute(output);
}
