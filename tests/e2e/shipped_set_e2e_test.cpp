// Bundle runs of the real keelcli with the instruction files that ship with
// it, in a private mount namespace (see E2eSupport.h) with /tmp, /opt and
// /etc of its own. Checks that every program of the set left its banner
// with its command line as written, that none failed because of how the
// instruction wrote it, that nothing read standard input, and that secrets
// planted where the set reaches stay out of the bundle.
//
// The commands as written are read out of the shipped files by Python's
// own XML reader, not by the tool's.
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using keeltest::IsolatedResult;
using keeltest::ShellQuote;

const std::string kStars(75, '*');
// The PATH of a root shell: the shipped commands find their programs there.
const char kRootPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

// The three lines that precede each command's output in a captured file.
std::string Banner(const std::string& commandLine) {
  return "\n\r" + kStars + "\n" + "\"" + commandLine + "\" output:\n" + kStars + "\n\r\n";
}

// One program of the shipped set, as its file writes it.
struct ShippedProgram {
  std::string output;       // temp_out: the file in the bundle
  std::string commandLine;  // args, entities resolved, trimmed at both ends
};

std::vector<ShippedProgram> ShippedPrograms(const std::string& folder) {
  const std::string script =
      "import glob, sys, xml.etree.ElementTree as ET\n"
      "for path in sorted(glob.glob(sys.argv[1] + '/*.xml')):\n"
      "    for os_ in ET.parse(path).getroot().iter('os'):\n"
      "        if os_.get('opsys') != 'linux':\n"
      "            continue\n"
      "        for action in os_.iter('action'):\n"
      "            args = action.find('args')\n"
      "            if args is not None:\n"
      "                print(action.findtext('temp_out').strip())\n"
      "                print(args.text.strip())\n";
  const std::string out =
      keeltest::Shell("python3 -c " + ShellQuote(script) + " " + ShellQuote(folder));
  std::vector<ShippedProgram> programs;
  std::istringstream lines(out);
  ShippedProgram program;
  while (std::getline(lines, program.output) && std::getline(lines, program.commandLine))
    programs.push_back(program);
  return programs;
}

// The program that timeout runs in a command line "timeout OPTIONS N PROGRAM ...".
std::string ProgramUnderTimeout(const std::string& commandLine) {
  std::istringstream words(commandLine);
  std::string word;
  words >> word;  // timeout
  while (words >> word && word[0] == '-') {
  }
  words >> word;  // behind the duration
  return word;
}

// The output of one command in a captured file: from behind its banner to
// the next banner.
std::string Section(const std::string& file, const std::string& commandLine) {
  const std::string banner = Banner(commandLine);
  const size_t start = file.find(banner);
  if (start == std::string::npos)
    return std::string();
  const size_t from = start + banner.size();
  const size_t next = file.find("\n\r" + kStars, from);
  return file.substr(from, next == std::string::npos ? std::string::npos : next - from);
}

// Whether `program` lies in a folder of the root shell's PATH.
bool OnRootPath(const std::string& program) {
  for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
    if (access((folder + program).c_str(), X_OK) == 0)
      return true;
  }
  return false;
}

std::string RandomSecret(const char* label) {
  std::random_device device;
  std::ostringstream text;
  text << label << std::hex << device() << device() << device();
  return text.str();
}

class ShippedSet : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeInstalledTree());
    if (IsSkipped())
      return;
    CopyShippedConfigs("install/xml/config");
  }

  // A bundle run whose standard input holds `input`, which no program may
  // read; `prepare` runs first in the namespace.
  IsolatedResult Bundle(const std::string& bundle, const std::string& input,
                        const std::string& prepare) {
    const std::string script = "printf '%s\\n' " + ShellQuote(input) + " | \"$0\" -dst \"$1\"";
    return keeltest::RunIsolated({"/bin/sh", "-c", script, m_tree->Sub("install/keelcli"), bundle},
                                 {kRootPath, "HOME=" + m_tree->Sub("home"), "USER=root"},
                                 m_tree->Sub("work"), m_tree->Sub("scratch"), prepare);
  }

  // The bundle's entries by name, unpacked once by unzip, which also
  // tests the archive.
  std::map<std::string, std::string> Unpack(const std::string& bundle) {
    const std::string folder = m_tree->Sub("unpacked");
    int status = -1;
    keeltest::Shell("unzip -q -o " + ShellQuote(bundle) + " -d " + ShellQuote(folder), &status);
    EXPECT_EQ(status, 0);
    std::map<std::string, std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      if (entry.is_regular_file()) {
        entries[fs::relative(entry.path(), folder).string()] =
            keeltest::ReadFile(entry.path().string());
      }
    }
    return entries;
  }
};

TEST_F(ShippedSet, EveryProgramLeavesItsBannerAndNoneFailsByItsInstruction) {
  const std::vector<ShippedProgram> programs = ShippedPrograms(m_tree->Sub("install/xml/config"));
  ASSERT_GE(programs.size(), 10u);
  const std::string bundle = m_tree->Sub("out/shipped.zip");
  const std::string input = RandomSecret("stdin-");
  const IsolatedResult run = Bundle(bundle, input, "");
  ASSERT_EQ(run.status, 0) << run.err;
  const std::map<std::string, std::string> entries = Unpack(bundle);
  ASSERT_EQ(entries.count("summary.txt"), 1u);
  for (const ShippedProgram& program : programs) {
    SCOPED_TRACE(program.commandLine);
    // The blanks of the command line as written reach the shell.
    ASSERT_EQ(entries.count(program.output), 1u);
    const std::string file = entries.at(program.output);
    ASSERT_NE(file.find(Banner(program.commandLine)), std::string::npos) << file;
    const std::string section = Section(file, program.commandLine);
    // timeout itself is always found where path says.
    EXPECT_EQ(section.find("timeout: not found"), std::string::npos) << section;
    EXPECT_EQ(section.find("sh: 1:"), std::string::npos) << section;
    // A program the host lacks is the host's matter; one it has must take
    // the command line as written.
    const std::string name = ProgramUnderTimeout(program.commandLine);
    if (!OnRootPath(name))
      continue;
    for (const char* refusal :
         {"failed to run command", "command not found", "invalid option", "unrecognized option",
          "unknown option", "Usage:", "usage:", "Try '", "is unknown, try"}) {
      EXPECT_EQ(section.find(refusal), std::string::npos) << section;
    }
  }
  for (const auto& entry : entries)
    EXPECT_EQ(entry.second.find(input), std::string::npos) << entry.first;
}

TEST_F(ShippedSet, PlantedSecretsStayOutOfTheBundle) {
  const std::string wireguardKey = RandomSecret("wg-private-");
  const std::string connectionKey = RandomSecret("nm-psk-");
  const std::string ipsecKey = RandomSecret("ipsec-psk-");
  const std::string wirelessKey = RandomSecret("wpa-psk-");
  const std::string clientKey = RandomSecret("client-key-");
  const std::string reachable = RandomSecret("nm-conf-");
  // Beside files that the set does gather, in the folders it reads.
  const std::string prepare =
      "mkdir -p /etc/wireguard /etc/NetworkManager/system-connections /etc/network "
      "/etc/ipsec.d /opt/velon/tesselclient/log\n"
      "printf '[Interface]\\nPrivateKey = %s\\nListenPort = 51820\\n' " +
      ShellQuote(wireguardKey) +
      " > /etc/wireguard/wg0.conf\n"
      "printf '[connection]\\nid=corp\\ntype=vpn\\n[vpn-secrets]\\npsk=%s\\n' " +
      ShellQuote(connectionKey) +
      " > /etc/NetworkManager/system-connections/corp.nmconnection\n"
      "chmod 600 /etc/NetworkManager/system-connections/corp.nmconnection\n"
      "printf '[main]\\n# %s\\n' " +
      ShellQuote(reachable) +
      " > /etc/NetworkManager/NetworkManager.conf\n"
      "printf ': PSK \"%s\"\\n' " +
      ShellQuote(ipsecKey) +
      " > /etc/ipsec.secrets\n"
      "printf 'iface wlan0 inet dhcp\\n  wpa-psk %s\\n' " +
      ShellQuote(wirelessKey) +
      " > /etc/network/interfaces\n"
      "printf '%s\\n' " +
      ShellQuote(clientKey) +
      " > /opt/velon/tesselclient/client.key\n"
      "printf 'client started\\n' > /opt/velon/tesselclient/log/client.log\n";
  const std::string bundle = m_tree->Sub("out/secrets.zip");
  const IsolatedResult run = Bundle(bundle, "", prepare);
  ASSERT_EQ(run.status, 0) << run.err;

  std::string everything;
  for (const auto& entry : Unpack(bundle))
    everything += entry.second;
  // The folders were within reach: their harmless files are in.
  EXPECT_NE(everything.find(reachable), std::string::npos);
  EXPECT_NE(everything.find("client started"), std::string::npos);
  for (const std::string& secret :
       {wireguardKey, connectionKey, ipsecKey, wirelessKey, clientKey}) {
    EXPECT_EQ(everything.find(secret), std::string::npos) << secret;
  }
}

}  // namespace
