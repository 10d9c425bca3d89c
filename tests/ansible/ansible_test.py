#!/usr/bin/env python3
"""Tests of the Ansible playbooks in contrib/ansible.

Commands (WORK is a folder of the test's own below the build folder; it is
emptied first by the commands that make it):

  ansible_test.py syntax PLAYBOOK WORK      ansible-playbook --syntax-check
  ansible_test.py lint WORK                 ansible-lint over the playbooks and role
  ansible_test.py run SCENARIO WORK KEELCLI runs a scenario's playbooks once
  ansible_test.py check NAME WORK           one check on what `run` left in WORK

A scenario runs ansible-playbook on an inventory of hosts that are all this
machine (ansible_connection=local), each with its own copy of keelcli and its
own instruction folder. It runs in a private mount namespace with a fresh,
empty /tmp (and /opt), so that what the playbooks and keelcli leave there can
be listed afterwards and nothing reaches the real folders. Ansible's home,
temporary folders and job files are kept below WORK; it runs with no standard
input and needs no network.

Exit status: 0 passed, 1 failed, 77 skipped (no private mount namespaces here).
"""

import datetime
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import zipfile

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PLAYBOOK_DIR = os.path.join(SOURCE_DIR, "contrib", "ansible")
SKIP = 77

# Instruction file of a test host: one group of files to copy.
INSTRUCTIONS = """<?xml version="1.0" encoding="UTF-8"?>
<keelConfig>
  <configure><title>{title}</title></configure>
  <fileGroup treeRootName="{title}">
    <title>{title}</title>
{files}  </fileGroup>
{extra}</keelConfig>
"""

FILE_INSTRUCTION = """    <file id="{id}">
      <description>{id}</description>
      <default>{default}</default>
      <keel>
        <os opsys="linux">
          <file_copy_action>
            <action><loc>{loc}</loc>{clear}</action>
          </file_copy_action>
        </os>
      </keel>
    </file>
"""

PROGRAM_INSTRUCTION = """    <file id="{id}">
      <description>{id}</description>
      <default>true</default>
      <keel>
        <os opsys="linux">
          <use_extern_action>
            <action>
              <path>/bin</path>
              <args>{args}</args>
              <temp_out>{id}.txt</temp_out>
              <stdout/>
            </action>
          </use_extern_action>
        </os>
      </keel>
    </file>
"""

# The group that -twlogs takes whole, whatever the instructions' defaults say.
LEGACY_GROUP = """  <fileGroup treeRootName="Legacy - Velon Tidewalker Tessel Mobility Client">
    <title>Legacy - Velon Tidewalker Tessel Mobility Client</title>
{files}  </fileGroup>
"""


class Failed(Exception):
    """A check that did not hold; the message says what was seen."""


def expect(condition, message):
    if not condition:
        raise Failed(message)


def read(path, default=""):
    try:
        with open(path, encoding="utf-8", errors="replace") as stream:
            return stream.read()
    except OSError:
        return default


def write(path, content, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as stream:
        stream.write(content)
    os.chmod(path, mode)


def fresh_folder(path):
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


def ansible_environment(work):
    """The whole environment of an ansible command: every folder Ansible
    writes to lies below WORK, and no configuration file of this machine is
    read."""
    home = os.path.join(work, "home")
    for sub in ("tmp", "local", "remote", "async", "cache"):
        os.makedirs(os.path.join(home, sub), exist_ok=True)
    config = os.path.join(work, "ansible.cfg")
    write(config, "[defaults]\n")
    return {
        "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
        "HOME": home,
        "LANG": "C.UTF-8",
        "LC_ALL": "C.UTF-8",
        "XDG_CACHE_HOME": os.path.join(home, "cache"),
        "ANSIBLE_CONFIG": config,
        "ANSIBLE_HOME": os.path.join(home, ".ansible"),
        "ANSIBLE_LOCAL_TEMP": os.path.join(home, "local"),
        "ANSIBLE_REMOTE_TEMP": os.path.join(home, "remote"),
        "ANSIBLE_ASYNC_DIR": os.path.join(home, "async"),
        "ANSIBLE_NOCOLOR": "1",
        "ANSIBLE_RETRY_FILES_ENABLED": "false",
        # The hosts' Python is found as Ansible finds it on any host.
        "ANSIBLE_PYTHON_INTERPRETER": "auto_silent",
        # keelcli's log records go to its standard output, not the journal.
        "VTC_LOGGING_OUTPUT": "STDOUT",
    }


def run_tool(argv, env, cwd, log):
    """Runs argv with no standard input; its output goes to `log`."""
    with open(log, "w", encoding="utf-8") as out:
        return subprocess.run(argv, env=env, cwd=cwd, stdin=subprocess.DEVNULL,
                              stdout=out, stderr=subprocess.STDOUT, check=False).returncode


def require_program(name):
    path = shutil.which(name)
    expect(path is not None, f"{name} is not installed (make deps installs it)")
    return path


# --- syntax and lint ------------------------------------------------------------------

def command_syntax(playbook, work):
    fresh_folder(work)
    env = ansible_environment(work)
    env["TMPDIR"] = os.path.join(work, "home", "tmp")
    log = os.path.join(work, "output.txt")
    status = run_tool([require_program("ansible-playbook"), "--syntax-check",
                       "-i", os.path.join(PLAYBOOK_DIR, "inventory.example.ini"),
                       os.path.join(PLAYBOOK_DIR, playbook)], env, work, log)
    sys.stdout.write(read(log))
    expect(status == 0, f"ansible-playbook --syntax-check {playbook} exited with {status}")


def command_lint(work):
    fresh_folder(work)
    env = ansible_environment(work)
    env["TMPDIR"] = os.path.join(work, "home", "tmp")
    log = os.path.join(work, "output.txt")
    # --offline: no look for newer releases and no downloads; the strictest
    # profile, and warnings count as failures.
    status = run_tool([require_program("ansible-lint"), "--offline", "--strict",
                       "--profile", "production", "--nocolor",
                       "collect.yml", "install.yml", "clear.yml", "roles/keelcli"],
                      env, PLAYBOOK_DIR, log)
    output = read(log)
    sys.stdout.write(output)
    expect(status == 0, f"ansible-lint exited with {status}")
    expect("0 failure(s), 0 warning(s)" in output, "ansible-lint did not report a clean run")


# --- scenarios ------------------------------------------------------------------------

class Host:
    """One inventory host: its folder below WORK/hosts holds its keelcli, its
    instruction folder and the files its instructions name."""

    def __init__(self, work, name):
        self.name = name
        self.folder = os.path.join(work, "hosts", name)
        self.keelcli = os.path.join(self.folder, "keelcli")
        self.vars = {"keelcli_path": self.keelcli}

    def data(self, file_name):
        return os.path.join(self.folder, "data", file_name)

    def install(self, keelcli):
        os.makedirs(os.path.join(self.folder, "xml", "config"), exist_ok=True)
        shutil.copy2(keelcli, self.keelcli)

    def write_data(self, file_name, content):
        write(self.data(file_name), content)

    def write_instructions(self, files, extra="", title=None):
        write(os.path.join(self.folder, "xml", "config", self.name + ".xml"),
              INSTRUCTIONS.format(title=title or "Host " + self.name, files="".join(files),
                                  extra=extra))

    def copy_instruction(self, file_name, default="true", clear=False):
        return FILE_INSTRUCTION.format(id=file_name.replace(".", "-"), default=default,
                                       loc=self.data(file_name),
                                       clear='<clear_log apply="true"/>' if clear else "")


def data_text(host, file_name):
    return f"{file_name} of {host}\nline two\n"


def write_inventory(path, hosts):
    lines = ["[fleet]"]
    for host in hosts:
        lines.append(host.name + "".join(f" {key}={value}" for key, value in host.vars.items()))
    lines += ["", "[fleet:vars]", "ansible_connection=local", ""]
    write(path, "\n".join(lines))


def scenario_collect(work, keelcli):
    """A fleet of two good hosts and one whose program is missing."""
    gateway = Host(work, "gateway")
    client = Host(work, "client")
    jumphost = Host(work, "jumphost")
    gateway.install(keelcli)
    for name in ("routes.txt", "tunnel.log"):
        gateway.write_data(name, data_text("gateway", name))
    gateway.write_instructions([gateway.copy_instruction("routes.txt"),
                                gateway.copy_instruction("tunnel.log")])
    client.install(keelcli)
    client.write_data("client.log", data_text("client", "client.log"))
    client.write_instructions([client.copy_instruction("client.log")])
    os.makedirs(os.path.join(jumphost.folder, "xml", "config"))  # but no keelcli
    hosts = [gateway, client, jumphost]
    write_inventory(os.path.join(work, "inventory.ini"), hosts)
    expected = {
        "gateway": {name: data_text("gateway", name) for name in ("routes.txt", "tunnel.log")},
        "client": {"client.log": data_text("client", "client.log")},
    }
    # keel_bundles_dir is left at its default, "bundles" in the folder the
    # playbook runs in.
    runs = [("collect", ["collect.yml", "-e", "keel_poll=1"])]
    return runs, {"expected": expected}


def scenario_failures(work, keelcli):
    """Hosts on which keelcli runs but no bundle may be taken, beside one
    whose options from keel_args reach keelcli."""
    empty = Host(work, "noconfig")  # no instruction file: the engine fails
    empty.install(keelcli)
    slow = Host(work, "slow")  # its one program outlasts keel_timeout
    slow.install(keelcli)
    # Ansible looks at an async job's time limit every few seconds, so the
    # program waits well beyond that.
    slow.write_instructions([PROGRAM_INSTRUCTION.format(id="wait", args="sleep 20")])
    slow.vars["keel_timeout"] = "2"
    sneaky = Host(work, "sneaky")  # asks for a clear run through keel_args
    sneaky.install(keelcli)
    sneaky.write_data("precious.log", data_text("sneaky", "precious.log"))
    sneaky.write_instructions([sneaky.copy_instruction("precious.log", clear=True)])
    sneaky.vars["keel_args"] = "-clearlogs"
    legacy = Host(work, "legacy")  # -twlogs takes the legacy group whole
    legacy.install(keelcli)
    for name in ("current.log", "legacy.log"):
        legacy.write_data(name, data_text("legacy", name))
    legacy.write_instructions(
        [legacy.copy_instruction("current.log")],
        extra=LEGACY_GROUP.format(files=legacy.copy_instruction("legacy.log", default="false")))
    legacy.vars["keel_args"] = "-twlogs"
    unknown = Host(work, "unknown")  # keelcli refuses an option it does not know
    unknown.install(keelcli)
    unknown.write_data("some.log", data_text("unknown", "some.log"))
    unknown.write_instructions([unknown.copy_instruction("some.log")])
    unknown.vars["keel_args"] = "-bogus"
    hosts = [empty, slow, sneaky, legacy, unknown]
    write_inventory(os.path.join(work, "inventory.ini"), hosts)
    runs = [("collect", ["collect.yml", "-e", "keel_poll=1", "-e", "keel_bundles_dir=../out"])]
    return runs, {"precious": sneaky.data("precious.log")}


def scenario_clear(work, keelcli):
    """One host with a clearable log and one kept log; clear.yml runs first
    with nobody to confirm, then with keel_confirm=yes."""
    host = Host(work, "cleared")
    host.install(keelcli)
    for name in ("old.log", "kept.log"):
        host.write_data(name, data_text("cleared", name))
    host.write_instructions([host.copy_instruction("old.log", clear=True),
                             host.copy_instruction("kept.log")])
    write_inventory(os.path.join(work, "inventory.ini"), [host])
    runs = [("unconfirmed", ["clear.yml", "-e", "keel_poll=1"]),
            ("confirmed", ["clear.yml", "-e", "keel_poll=1", "-e", "keel_confirm=yes"])]
    return runs, {"old": host.data("old.log"), "kept": host.data("kept.log")}


SCENARIOS = {"collect": scenario_collect, "failures": scenario_failures, "clear": scenario_clear}


def namespaces_available():
    probe = subprocess.run(["unshare", "-m", "sh", "-c", "mount -t tmpfs tmpfs /tmp"],
                           stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, check=False)
    return probe.returncode == 0


def command_run(scenario, work, keelcli):
    fresh_folder(work)
    expect(scenario in SCENARIOS, f"no scenario {scenario}")
    require_program("ansible-playbook")
    expect(os.access(keelcli, os.X_OK), f"no built keelcli at {keelcli}")
    if not namespaces_available():
        write(os.path.join(work, "skipped"), "private mount namespaces are refused here\n")
        print("skipped: private mount namespaces are refused here")
        return SKIP
    runs, facts = SCENARIOS[scenario](work, os.path.abspath(keelcli))
    write(os.path.join(work, "plan.json"), json.dumps({"runs": runs, "facts": facts}))
    # The source tree may lie below /tmp (a clone there), which the private
    # /tmp hides: the playbooks go along in WORK.
    shutil.copytree(PLAYBOOK_DIR, os.path.join(work, "playbooks"))
    status = subprocess.run(["unshare", "-m", sys.executable, os.path.abspath(__file__),
                             "inside", work], stdin=subprocess.DEVNULL, check=False).returncode
    expect(status == 0, f"the run in the private namespace ended with {status}")
    for name, _ in runs:
        output = read(os.path.join(work, "result", name, "output.txt"))
        sys.stdout.write(f"--- ansible-playbook ({name}) ---\n{output}")
        expect("PLAY RECAP" in output, f"ansible-playbook ({name}) did not get to its recap")
    return 0


def inside_namespace(work):
    """Runs in the private mount namespace: gives it a fresh /tmp and /opt,
    runs the planned playbooks and records what they left."""
    # Mounting over /tmp or ending strays is only for a namespace of our own.
    if os.readlink("/proc/self/ns/mnt") == os.readlink(f"/proc/{os.getppid()}/ns/mnt"):
        print("inside: not in a private mount namespace")
        return 1
    top = None
    if work.startswith("/tmp/"):
        # WORK itself may lie below /tmp (a build in a clone there): a
        # descriptor held across the mount lets it be bound back in place.
        held = os.open(work, os.O_RDONLY | os.O_DIRECTORY)
        top = work[len("/tmp/"):].split("/")[0]
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/tmp"], check=True)
    if top is not None:
        os.makedirs(work)
        subprocess.run(["mount", "--no-canonicalize", "--bind", f"/proc/self/fd/{held}", work],
                       pass_fds=(held,), check=True)
        os.close(held)
    if os.path.isdir("/opt"):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/opt"], check=True)
    plan = json.loads(read(os.path.join(work, "plan.json")))
    env = ansible_environment(work)
    controller = os.path.join(work, "controller")
    os.makedirs(controller, exist_ok=True)
    for name, arguments in plan["runs"]:
        result = os.path.join(work, "result", name)
        os.makedirs(result)
        started = datetime.datetime.now()
        status = run_tool(["ansible-playbook", "-i", os.path.join(work, "inventory.ini")]
                          + [os.path.join(work, "playbooks", arguments[0])] + arguments[1:]
                          + ["-e", "ansible_become=false"],
                          env, controller, os.path.join(result, "output.txt"))
        ended = datetime.datetime.now()
        left = sorted(name for name in os.listdir("/tmp") if name != top)
        write(os.path.join(result, "outcome.json"), json.dumps({
            "status": status, "tmp": left,
            "started": started.strftime("%Y%m%d_%H%M%S"), "ended": ended.strftime("%Y%m%d_%H%M%S"),
        }))
    end_strays()
    return 0


def end_strays():
    """Ends what a stopped run left running in this namespace (a program
    that keelcli started outlives keelcli when it is killed). Only processes
    that share this private mount namespace are touched: this run made them."""
    own = os.readlink("/proc/self/ns/mnt")
    for entry in os.listdir("/proc"):
        if not entry.isdigit() or int(entry) == os.getpid():
            continue
        try:
            if os.readlink(f"/proc/{entry}/ns/mnt") == own:
                os.kill(int(entry), signal.SIGKILL)
        except OSError:
            pass


# --- checks ---------------------------------------------------------------------------

class Outcome:
    """What one playbook run of a scenario left in WORK."""

    def __init__(self, work, run):
        self.work = work
        self.plan = json.loads(read(os.path.join(work, "plan.json"), "{}"))
        self.facts = self.plan.get("facts", {})
        folder = os.path.join(work, "result", run)
        recorded = read(os.path.join(folder, "outcome.json"))
        expect(recorded, f"run {run} left no outcome in {folder}")
        self.__dict__.update(json.loads(recorded))
        self.output = read(os.path.join(folder, "output.txt"))

    def recap(self, host):
        """The PLAY RECAP counts of `host`, as a dict."""
        match = re.search(r"^" + re.escape(host) + r"\s*:\s*(.*)$", self.output.split("PLAY RECAP")[-1],
                          re.MULTILINE)
        expect(match, f"{host} is missing from the recap:\n{self.output}")
        return {key: int(value) for key, value in re.findall(r"(\w+)=(\d+)", match.group(1))}

    def failure_message(self, host):
        """The "msg" of the fatal line of `host`."""
        for line in self.output.splitlines():
            if line.startswith(f"fatal: [{host}]: FAILED! => "):
                return json.loads(line.split(" => ", 1)[1]).get("msg", "")
        raise Failed(f"no fatal line for {host} in:\n{self.output}")


def bundles_of(folder):
    try:
        return sorted(os.listdir(folder))
    except OSError:
        return []


def check_good_hosts_each_get_one_bundle_named_by_host_and_time(work):
    out = Outcome(work, "collect")
    root = os.path.join(work, "controller", "bundles")
    expect(bundles_of(root) == ["client", "gateway"],
           f"bundle folders {bundles_of(root)} in {root}, wanted client and gateway")
    for host in ("client", "gateway"):
        names = bundles_of(os.path.join(root, host))
        expect(len(names) == 1, f"{host} has bundles {names}, wanted one")
        match = re.fullmatch(re.escape(host) + r"_(\d{8}_\d{6})\.zip", names[0])
        expect(match, f"{names[0]} is not named {host}_<date>_<time>.zip")
        expect(out.started <= match.group(1) <= out.ended,
               f"{names[0]} is not stamped between {out.started} and {out.ended}")
        expect(out.recap(host).get("failed") == 0, f"{host} failed: {out.recap(host)}")


def check_bundles_are_valid_zips_holding_the_named_files(work):
    out = Outcome(work, "collect")
    for host, files in out.facts["expected"].items():
        folder = os.path.join(work, "controller", "bundles", host)
        names = bundles_of(folder)
        expect(len(names) == 1, f"{host} has bundles {names}, wanted one")
        path = os.path.join(folder, names[0])
        with zipfile.ZipFile(path) as bundle:
            expect(bundle.testzip() is None, f"{path} has a damaged member")
            held = sorted(bundle.namelist())
            expect(held == sorted(list(files) + ["summary.txt"]),
                   f"{path} holds {held}, wanted {sorted(files)} and summary.txt")
            for name, content in files.items():
                got = bundle.read(name).decode("utf-8", "replace")
                expect(got == content, f"{name} in {path} reads {got!r}, wanted {content!r}")
            summary = bundle.read("summary.txt").decode("utf-8", "replace")
            expect(summary.startswith("KEEL BUNDLE SUMMARY\n"), f"summary.txt of {path}: {summary!r}")
        mode = os.stat(path).st_mode & 0o777
        expect(mode == 0o600, f"{path} has mode {mode:o}, wanted 600")


def check_host_without_program_is_reported_failed(work):
    out = Outcome(work, "collect")
    expect(out.recap("jumphost").get("failed") == 1, f"jumphost recap {out.recap('jumphost')}")
    message = out.failure_message("jumphost")
    wanted = "keelcli is not installed here: no program at " + os.path.join(
        work, "hosts", "jumphost", "keelcli")
    expect(message == wanted, f"jumphost failed with {message!r}, wanted {wanted!r}")
    folder = os.path.join(work, "controller", "bundles", "jumphost")
    expect(not os.path.exists(folder), f"{folder} was made for a host without bundle")


def check_playbook_exits_non_zero_when_a_host_fails(work):
    out = Outcome(work, "collect")
    # 2 is ansible-playbook's status for "one or more hosts failed".
    expect(out.status == 2, f"collect.yml exited with {out.status}, wanted 2")


def check_no_temporary_or_working_folder_left(work):
    out = Outcome(work, "collect")
    expect(out.tmp == [], f"/tmp holds {out.tmp} after the run, wanted nothing")


def check_engine_failure_fails_host_with_internal_error_line(work):
    out = Outcome(work, "collect")
    message = out.failure_message("noconfig")
    expect(message == "Internal Error: no valid configuration XML found...",
           f"noconfig failed with {message!r}")
    expect(out.recap("noconfig").get("failed") == 1, f"noconfig recap {out.recap('noconfig')}")


def check_run_past_timeout_is_stopped_and_reported(work):
    out = Outcome(work, "collect")
    message = out.failure_message("slow")
    expect(message == "keelcli did not finish within 2 seconds and was stopped",
           f"slow failed with {message!r}")


def check_refused_options_fail_host_with_what_keelcli_said(work):
    out = Outcome(work, "collect")
    message = out.failure_message("unknown")
    wanted = 'keelcli exited with status 1: Invalid arguments. Try "-h" or "-help" option for help.'
    expect(message == wanted, f"unknown failed with {message!r}, wanted {wanted!r}")


def check_options_that_end_a_bundle_run_are_refused(work):
    out = Outcome(work, "collect")
    message = out.failure_message("sneaky")
    expect("keel_args may not hold -dst, -clearlogs" in message, f"sneaky failed with {message!r}")
    precious = out.facts["precious"]
    expect(os.path.exists(precious), f"{precious} was cleared although the run was refused")


def check_keel_args_reach_keelcli(work):
    out = Outcome(work, "collect")
    expect(out.recap("legacy").get("failed") == 0, f"legacy recap {out.recap('legacy')}")
    folder = os.path.join(work, "out", "legacy")
    names = bundles_of(folder)
    expect(len(names) == 1, f"legacy has bundles {names} in {folder}, wanted one")
    with zipfile.ZipFile(os.path.join(folder, names[0])) as bundle:
        held = sorted(bundle.namelist())
    expect(held == ["current.log", "legacy.log", "summary.txt"],
           f"the -twlogs bundle holds {held}")


def check_only_good_hosts_get_bundles_after_failures(work):
    Outcome(work, "collect")
    root = os.path.join(work, "out")
    expect(bundles_of(root) == ["legacy"], f"bundle folders {bundles_of(root)}, wanted legacy")


def check_private_folders_removed_after_failures(work):
    out = Outcome(work, "collect")
    left = [name for name in out.tmp if name.startswith("keel_bundle_")]
    expect(left == [], f"private bundle folders left in /tmp: {left}")


def check_clear_without_confirmation_clears_nothing(work):
    out = Outcome(work, "unconfirmed")
    expect(out.status == 2, f"clear.yml without confirmation exited with {out.status}, wanted 2")
    message = out.failure_message("cleared")
    expect(message == "Nothing was cleared; type yes at the prompt or pass -e keel_confirm=yes",
           f"cleared failed with {message!r}")
    expect("Run keelcli -clearlogs" not in out.output, "keelcli -clearlogs ran unconfirmed")


def check_clear_with_confirmation_clears_marked_logs(work):
    out = Outcome(work, "confirmed")
    expect(out.status == 0, f"clear.yml with keel_confirm=yes exited with {out.status}")
    expect(not os.path.exists(out.facts["old"]), f"{out.facts['old']} is still there")
    expect(os.path.exists(out.facts["kept"]), f"{out.facts['kept']} was cleared too")
    expect(out.tmp == [], f"/tmp holds {out.tmp} after the clear run")


CHECKS = {name[len("check_"):]: function for name, function in globals().items()
          if name.startswith("check_")}


def command_check(name, work):
    expect(name in CHECKS, f"no check {name}; there are {sorted(CHECKS)}")
    if os.path.exists(os.path.join(work, "skipped")):
        print("skipped: " + read(os.path.join(work, "skipped")).strip())
        return SKIP
    CHECKS[name](work)
    return 0


def main(argv):
    try:
        if len(argv) == 4 and argv[1] == "syntax":
            command_syntax(argv[2], os.path.abspath(argv[3]))
            return 0
        if len(argv) == 3 and argv[1] == "lint":
            command_lint(os.path.abspath(argv[2]))
            return 0
        if len(argv) == 5 and argv[1] == "run":
            return command_run(argv[2], os.path.abspath(argv[3]), argv[4])
        if len(argv) == 3 and argv[1] == "inside":
            return inside_namespace(argv[2])
        if len(argv) == 4 and argv[1] == "check":
            return command_check(argv[2], os.path.abspath(argv[3]))
    except Failed as failure:
        print(f"FAILED: {failure}")
        return 1
    print(__doc__)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
