#!/usr/bin/env python3
"""Checks of the Debian package, one per call:

    package_test.py CHECK --source DIR --build DIR --version V
                          --with-keelcheck 0|1

`build` makes the package with CPack into <build>/package-test/out; every
other check reads that package. Each check works in a folder of its own
below <build>/package-test and points TMPDIR there, so nothing is left in
the real /tmp. Exit status: 0 passed, 1 failed, 77 skipped.
"""

import argparse
import gzip
import os
import pty
import re
import select
import shlex
import shutil
import stat
import subprocess
import sys
import tarfile
import time
import xml.etree.ElementTree as ElementTree
import zipfile

SKIP = 77
INSTALL_ROOT = "/opt/velon/tesselclient"
PACKAGE = "keelcli"

# The console lines of keelcli's start of a custom bundle run.
BUNDLE_OPTION_LINE = "Bundle option selected: custom\r\n"
BUNDLE_LOCATION_LINE = "Bundle location: %s\r\n"
# A log record on standard output (VTC_LOGGING_OUTPUT=STDOUT).
LOG_RECORD = re.compile(
    r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d vtc_\w+\[\d+\]: \[[A-Z]+\] [^\n]*\n")
# An option line of keelcli's usage: "    -h, -help".
USAGE_OPTION = re.compile(r"^ {4}(-\w+)(?:, (-\w+))?(?: <\w+>)?\r?$", re.M)


class CheckFailed(Exception):
    pass


class Skipped(Exception):
    pass


def expect(condition, message):
    if not condition:
        raise CheckFailed(message)


def run(argv, **kwargs):
    """Runs argv, capturing text output; never raises on a non-zero exit."""
    kwargs.setdefault("capture_output", True)
    kwargs.setdefault("text", True)
    return subprocess.run(argv, check=False, **kwargs)


class Context:
    """Paths shared by the checks, and the check's own scratch folder."""

    def __init__(self, args):
        self.source = os.path.abspath(args.source)
        self.build = os.path.abspath(args.build)
        self.version = args.version
        self.with_keelcheck = args.with_keelcheck == "1"
        self.base = os.path.join(self.build, "package-test")
        self.out = os.path.join(self.base, "out")
        self.scratch = os.path.join(self.base, args.check)
        shutil.rmtree(self.scratch, ignore_errors=True)
        os.makedirs(os.path.join(self.scratch, "tmp"))
        # Every tool below (lintian above all) makes its temporary files here.
        os.environ["TMPDIR"] = os.path.join(self.scratch, "tmp")

    def deb(self):
        debs = [n for n in os.listdir(self.out) if n.endswith(".deb")] \
            if os.path.isdir(self.out) else []
        expect(len(debs) == 1, "expected one package in %s, found %s" % (self.out, debs))
        return os.path.join(self.out, debs[0])

    def unpack(self, name="root"):
        """Unpacks the package's files into a fresh folder of this check."""
        root = os.path.join(self.scratch, name)
        result = run(["dpkg-deb", "-x", self.deb(), root])
        expect(result.returncode == 0, "dpkg-deb -x failed: " + result.stderr)
        return root

    def shipped_configs(self):
        folder = os.path.join(self.source, "xml", "config")
        return sorted(n for n in os.listdir(folder) if n.endswith(".xml"))

    def schemas(self):
        folder = os.path.join(self.source, "xml", "schema")
        if not os.path.isdir(folder):
            return []
        return sorted(n for n in os.listdir(folder) if n.endswith(".rng"))

    def programs(self):
        return ["keelcli", "keelcheck"] if self.with_keelcheck else ["keelcli"]


# ---------------------------------------------------------------------------
# What the package must hold.

def expected_entries(ctx):
    """Path (without the leading "./") -> (kind, mode, link target)."""
    entries = {}

    def folder_chain(path):
        parts = path.split("/")
        for i in range(1, len(parts)):
            entries.setdefault("/".join(parts[:i]) + "/", ("dir", 0o755, None))

    def add(path, kind, mode, target=None):
        folder_chain(path)
        entries[path] = (kind, mode, target)

    root = INSTALL_ROOT.lstrip("/")
    for program in ctx.programs():
        add(root + "/" + program, "file", 0o755)
        add("usr/bin/" + program, "link", 0o777, INSTALL_ROOT + "/" + program)
        add("usr/share/bash-completion/completions/" + program, "file", 0o644)
    for name in ctx.shipped_configs():
        add(root + "/xml/config/" + name, "file", 0o644)
    for name in ctx.schemas():
        add(root + "/xml/schema/" + name, "file", 0o644)
    for page in manual_pages(ctx):
        section = page.rsplit(".", 1)[1]
        add("usr/share/man/man%s/%s.gz" % (section, page), "file", 0o644)
    add("usr/share/doc/%s/copyright" % PACKAGE, "file", 0o644)
    add("usr/share/doc/%s/changelog.gz" % PACKAGE, "file", 0o644)
    add("usr/share/lintian/overrides/" + PACKAGE, "file", 0o644)
    add("usr/lib/tmpfiles.d/%s.conf" % PACKAGE, "file", 0o644)
    return entries


def manual_pages(ctx):
    pages = ["keelcli.1", "keel-instructions.5"]
    if ctx.with_keelcheck:
        pages.append("keelcheck.1")
    return pages


def package_entries(ctx):
    """The package's data, as the same kind of map as expected_entries."""
    tar_stream = subprocess.run(["dpkg-deb", "--fsys-tarfile", ctx.deb()],
                                check=True, capture_output=True).stdout
    path = os.path.join(ctx.scratch, "data.tar")
    with open(path, "wb") as f:
        f.write(tar_stream)
    entries = {}
    owners = {}
    with tarfile.open(path) as archive:
        for member in archive.getmembers():
            name = member.name[2:] if member.name.startswith("./") else member.name
            if name in ("", "."):
                continue
            if member.isdir():
                entries[name.rstrip("/") + "/"] = ("dir", member.mode & 0o7777, None)
            elif member.issym():
                entries[name] = ("link", 0o777, member.linkname)
            elif member.isfile():
                entries[name] = ("file", member.mode & 0o7777, None)
            else:
                entries[name] = ("other", member.mode & 0o7777, None)
            owners[name] = (member.uid, member.gid, member.uname, member.gname)
    return entries, owners


def tree_entries(root):
    """An installed tree below `root`, as the same kind of map."""
    entries = {}
    for folder, dirs, files in os.walk(root):
        for name in dirs + files:
            full = os.path.join(folder, name)
            rel = os.path.relpath(full, root)
            info = os.lstat(full)
            if stat.S_ISLNK(info.st_mode):
                entries[rel] = ("link", 0o777, os.readlink(full))
            elif stat.S_ISDIR(info.st_mode):
                entries[rel + "/"] = ("dir", stat.S_IMODE(info.st_mode), None)
            else:
                entries[rel] = ("file", stat.S_IMODE(info.st_mode), None)
    return entries


def describe_difference(expected, actual):
    lines = []
    for path in sorted(set(expected) | set(actual)):
        want, got = expected.get(path), actual.get(path)
        if want != got:
            lines.append("  %s: expected %s, found %s" % (path, fmt_entry(want), fmt_entry(got)))
    return "\n".join(lines)


def fmt_entry(entry):
    if entry is None:
        return "nothing"
    kind, mode, target = entry
    text = "%s %04o" % (kind, mode)
    return text + " -> " + target if target else text


# ---------------------------------------------------------------------------
# Running the unpacked programs in a private mount namespace.

def namespaces_available():
    result = run(["unshare", "-m", "sh", "-c", "mount -t tmpfs tmpfs /tmp"])
    return result.returncode == 0 and os.path.isdir("/opt")


def run_isolated(ctx, root, argv, cwd, env=None, tag="run"):
    """Runs argv in a private mount namespace where /opt is the unpacked
    package's, and /tmp and /etc are fresh (the latter with an os-release
    only), so the run reads only what the package brings and leaves nothing
    behind. Returns (status, stdout, stderr, tmp listing after the run)."""
    if not namespaces_available():
        raise Skipped("private mount namespaces are not available here")
    capture = os.path.join(ctx.scratch, tag)
    os.makedirs(capture, exist_ok=True)
    environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
                   "USER": "root", "LANG": "C", "VTC_LOGGING_OUTPUT": "STDOUT"}
    environment.update(env or {})
    q = shlex.quote
    command = " ".join(q(a) for a in argv)
    assignments = " ".join(q("%s=%s" % item) for item in sorted(environment.items()))
    script = "\n".join([
        # The build folder may lie below /tmp (a clone there): a descriptor
        # held across the mount binds it back at its own path.
        "exec 9< %s || exit 89" % q(ctx.base),
        "mount --bind %s /opt || exit 90" % q(os.path.join(root, "opt")),
        "mount -t tmpfs tmpfs /tmp || exit 91",
        "case %s in /tmp/*) mkdir -p %s && mount --no-canonicalize --bind /proc/self/fd/9 %s"
        " || exit 95;; esac" % (q(ctx.base), q(ctx.base), q(ctx.base)),
        "mount -t tmpfs tmpfs /etc || exit 92",
        "printf 'NAME=\"TestOS\"\\nVERSION=\"1.0\"\\n' > /etc/os-release",
        "cd %s || exit 93" % q(cwd),
        "env -i %s %s > %s 2> %s" % (assignments, command, q(capture + "/stdout"),
                                     q(capture + "/stderr")),
        "echo $? > %s" % q(capture + "/status"),
        "ls -A /tmp | grep -v -x -F %s > %s" % (q(tmp_top(ctx.base)), q(capture + "/tmp-listing")),
        "exit 0",
    ])
    result = run(["unshare", "-m", "sh", "-c", script])
    expect(result.returncode == 0,
           "namespace set-up failed (%d): %s" % (result.returncode, result.stderr))
    with open(capture + "/status") as f:
        status = int(f.read().strip())
    with open(capture + "/stdout", encoding="utf-8", errors="replace", newline="") as f:
        out = f.read()
    with open(capture + "/stderr", encoding="utf-8", errors="replace", newline="") as f:
        err = f.read()
    with open(capture + "/tmp-listing") as f:
        listing = f.read()
    return status, out, err, listing


def tmp_top(path):
    """The name directly below /tmp that leads to `path`, if it lies there."""
    if not path.startswith("/tmp/"):
        return "/"  # a name no listing holds
    return path[5:].split("/", 1)[0]


def plant_decoy(folder, title, marker):
    """An instruction file that gathers `marker`, in `folder`/xml/config/."""
    config = os.path.join(folder, "xml", "config")
    os.makedirs(config, exist_ok=True)
    with open(os.path.join(config, "decoy.xml"), "w") as f:
        f.write("""<?xml version="1.0" encoding="UTF-8"?>
<keelConfig>
  <configure><title>%s</title></configure>
  <fileGroup treeRootName="%s">
    <file id="decoy">
      <description>Must never be read</description>
      <default>true</default>
      <keel><os opsys="linux"><file_copy_action>
        <action><loc>%s</loc></action>
      </file_copy_action></os></keel>
    </file>
  </fileGroup>
</keelConfig>
""" % (title, title, marker))


def config_titles(folder):
    titles = []
    for name in sorted(os.listdir(folder)):
        if not name.endswith(".xml"):
            continue
        tree = ElementTree.parse(os.path.join(folder, name))
        title = tree.getroot().find("configure/title")
        expect(title is not None and title.text,
               "%s has no configure/title to look for" % name)
        titles.append(title.text.strip())
    return titles


# ---------------------------------------------------------------------------
# The checks.

def check_build(ctx):
    """CPack builds exactly one package, with its metadata, and dependencies
    that cover every shared library the programs need."""
    shutil.rmtree(ctx.out, ignore_errors=True)
    result = run(["cpack", "-G", "DEB", "-B", ctx.out,
                  "--config", os.path.join(ctx.build, "CPackConfig.cmake")])
    expect(result.returncode == 0, "cpack failed:\n" + result.stdout + result.stderr)
    arch = run(["dpkg", "--print-architecture"]).stdout.strip()
    deb = ctx.deb()
    expect(os.path.basename(deb) == "%s_%s_%s.deb" % (PACKAGE, ctx.version, arch),
           "unexpected package name " + deb)

    fields = {}
    for field in ("Package", "Version", "Architecture", "Maintainer", "Section",
                  "Priority", "Depends", "Description"):
        fields[field] = run(["dpkg-deb", "-f", deb, field]).stdout.strip()
    expect(fields["Package"] == PACKAGE, "Package: " + fields["Package"])
    expect(fields["Version"] == ctx.version, "Version: " + fields["Version"])
    expect(fields["Architecture"] == arch, "Architecture: " + fields["Architecture"])
    expect(re.fullmatch(r"[^<>]+ <[^@<>\s]+@[^@<>\s]+>", fields["Maintainer"]),
           "Maintainer: " + fields["Maintainer"])
    expect(fields["Section"] == "admin", "Section: " + fields["Section"])
    with open(os.path.join(ctx.source, "packaging", "description")) as f:
        synopsis = f.readline().strip()
    expect(fields["Description"].split("\n")[0] == synopsis,
           "Description synopsis: " + fields["Description"].split("\n")[0])
    expect(len(fields["Description"].split("\n")) > 3, "no long description")

    changelog_version = run(["dpkg-parsechangelog", "-l",
                             os.path.join(ctx.source, "packaging", "changelog"),
                             "-S", "Version"])
    expect(changelog_version.returncode == 0, "changelog: " + changelog_version.stderr)
    expect(changelog_version.stdout.strip() == ctx.version,
           "changelog's last entry is %s, the package %s"
           % (changelog_version.stdout.strip(), ctx.version))

    # Every library a program loads must come from a package named in
    # Depends: that is what dpkg-shlibdeps had to find.
    depends = {d.strip().split()[0].split(":")[0]
               for d in fields["Depends"].replace("|", ",").split(",") if d.strip()}
    root = ctx.unpack()
    for program in ctx.programs():
        binary = os.path.join(root, INSTALL_ROOT.lstrip("/"), program)
        # The libraries the program names itself; ldd says where they are.
        needed = re.findall(r"\(NEEDED\).*\[(.+)\]", run(["readelf", "-d", binary]).stdout)
        expect(needed, "readelf found no libraries in " + program)
        ldd = run(["ldd", binary])
        expect(ldd.returncode == 0, "ldd %s: %s" % (program, ldd.stderr))
        found = dict(re.findall(r"^\s*(\S+) => (/\S+)", ldd.stdout, re.M))
        for name in needed:
            expect(name in found, "ldd does not resolve %s of %s" % (name, program))
            library = found[name]
            owner = owning_package(library)
            expect(owner in depends, "%s needs %s from %s, which Depends (%s) lacks"
                   % (program, name, owner, fields["Depends"]))
    print("built %s\nDepends: %s" % (deb, fields["Depends"]))


def owning_package(path):
    """The installed package that holds `path`, trying the /usr-merged forms."""
    candidates = [path, os.path.realpath(path)]
    for candidate in list(candidates):
        if candidate.startswith("/usr/"):
            candidates.append(candidate[4:])
        else:
            candidates.append("/usr" + candidate)
    for candidate in candidates:
        result = run(["dpkg", "-S", candidate])
        if result.returncode == 0:
            return result.stdout.split(":")[0].strip()
    raise CheckFailed("no installed package holds " + path)


def check_files(ctx):
    """The package holds exactly the expected files, folders and links, with
    their modes, owned by root; the instruction files are its conffiles;
    contents match the tree and md5sums."""
    expected = expected_entries(ctx)
    actual, owners = package_entries(ctx)
    expect(expected == actual, "file list differs:\n" + describe_difference(expected, actual))
    for name, (uid, gid, uname, gname) in owners.items():
        expect(uid == 0 and gid == 0 and uname in ("root", "") and gname in ("root", ""),
               "%s is owned by %s:%s (%d:%d)" % (name, uname, gname, uid, gid))

    control = os.path.join(ctx.scratch, "control")
    result = run(["dpkg-deb", "-e", ctx.deb(), control])
    expect(result.returncode == 0, "dpkg-deb -e: " + result.stderr)
    with open(os.path.join(control, "conffiles")) as f:
        conffiles = f.read().split()
    expect(sorted(conffiles) == ["%s/xml/config/%s" % (INSTALL_ROOT, n)
                                 for n in ctx.shipped_configs()],
           "conffiles: %s" % conffiles)
    for name in os.listdir(control):
        mode = stat.S_IMODE(os.stat(os.path.join(control, name)).st_mode)
        expect(mode == 0o644, "control file %s has mode %04o" % (name, mode))

    root = ctx.unpack()
    md5 = run(["md5sum", "--check", "--quiet", os.path.join(control, "md5sums")], cwd=root)
    expect(md5.returncode == 0, "md5sums do not match:\n" + md5.stdout + md5.stderr)

    def same(installed, source):
        with open(installed, "rb") as a, open(source, "rb") as b:
            return a.read() == b.read()

    installed_root = os.path.join(root, INSTALL_ROOT.lstrip("/"))
    for name in ctx.shipped_configs():
        expect(same(os.path.join(installed_root, "xml", "config", name),
                    os.path.join(ctx.source, "xml", "config", name)),
               "installed %s differs from the tree" % name)
    for name in ctx.schemas():
        expect(same(os.path.join(installed_root, "xml", "schema", name),
                    os.path.join(ctx.source, "xml", "schema", name)),
               "installed %s differs from the tree" % name)
    for program in ctx.programs():
        expect(same(os.path.join(root, "usr/share/bash-completion/completions", program),
                    os.path.join(ctx.source, "completion", program)),
               "installed completion of %s differs from the tree" % program)
        binary = os.path.join(installed_root, program)
        sections = run(["readelf", "-S", "-W", binary]).stdout
        expect(".debug_info" not in sections and ".symtab" not in sections,
               program + " is not stripped")

    compressed = {"usr/share/doc/%s/changelog.gz" % PACKAGE: "packaging/changelog"}
    for page in manual_pages(ctx):
        compressed["usr/share/man/man%s/%s.gz" % (page.rsplit(".", 1)[1], page)] = "man/" + page
    for installed, source in compressed.items():
        with open(os.path.join(root, installed), "rb") as f:
            data = f.read()
        # gzip -n: no file name (flag bit 3) and no time stamp in the header.
        expect(data[3] & 0x08 == 0 and data[4:8] == b"\0\0\0\0",
               installed + " carries a name or time stamp")
        with open(os.path.join(ctx.source, source), "rb") as f:
            expect(gzip.decompress(data) == f.read(), installed + " differs from " + source)
    print("%d entries as expected; conffiles: %s" % (len(actual), " ".join(conffiles)))


def check_install(ctx):
    """`cmake --install` with DESTDIR lays down the tree that the package
    holds, and nothing outside DESTDIR."""
    dest = os.path.join(ctx.scratch, "dest")
    env = dict(os.environ, DESTDIR=dest)
    # The same command as `make install`.
    result = run(["cmake", "--install", ctx.build, "--prefix", "/usr"], env=env)
    expect(result.returncode == 0, "cmake --install failed:\n" + result.stdout + result.stderr)
    for line in result.stdout.splitlines():
        match = re.match(r"-- (?:Installing|Up-to-date): (.*)", line)
        if match:
            expect(match.group(1).startswith(dest + "/"),
                   "installed outside DESTDIR: " + match.group(1))
    installed = tree_entries(dest)
    packaged, _ = package_entries(ctx)
    expect(installed == packaged,
           "installed tree differs from the package:\n"
           + describe_difference(packaged, installed))
    print("%d entries installed below DESTDIR, as in the package" % len(installed))


def check_run(ctx):
    """The unpacked keelcli, started through its /usr/bin link, finds the
    instruction files beside the real program (not beside the link) and
    makes a bundle from them."""
    root = ctx.unpack()
    # A decoy beside the link: were the folder taken from the path the
    # program was started by, this file would be read.
    plant_decoy(os.path.join(root, "usr", "bin"), "Decoy Beside The Link",
                "/etc/os-release")
    work = os.path.join(ctx.scratch, "work")
    os.makedirs(work)
    bundle = os.path.join(work, "bundle.zip")
    link = os.path.join(root, "usr", "bin", "keelcli")
    expect(os.readlink(link) == INSTALL_ROOT + "/keelcli", "link: " + os.readlink(link))

    status, out, err, listing = run_isolated(ctx, root, [link, "-dst", bundle], work)
    console = LOG_RECORD.sub("", out)
    print(console)
    print(err, file=sys.stderr)
    expect(status == 0, "keelcli exited with %d" % status)
    expect(BUNDLE_OPTION_LINE in console, "no custom run line in:\n" + console)
    expect(BUNDLE_LOCATION_LINE % bundle in console, "no location line in:\n" + console)
    expect("Internal Error" not in console, "the engine failed:\n" + console)
    expect(os.path.isfile(bundle), "no bundle at " + bundle)

    unzip = run(["unzip", "-t", bundle])
    expect(unzip.returncode == 0, "unzip -t: " + unzip.stdout + unzip.stderr)
    with zipfile.ZipFile(bundle) as archive:
        expect(archive.testzip() is None, "a damaged entry in the bundle")
        names = archive.namelist()
        expect("summary.txt" in names, "no summary.txt in %s" % names)
        summary = archive.read("summary.txt").decode("utf-8", "replace")
    expect(summary.startswith("KEEL BUNDLE SUMMARY\n"), "summary begins:\n" + summary[:200])
    expect("failed to parse" not in summary, "a shipped file failed:\n" + summary)
    installed_configs = os.path.join(root, INSTALL_ROOT.lstrip("/"), "xml", "config")
    titles = config_titles(installed_configs)
    expect(len(titles) == len(ctx.shipped_configs()), "titles: %s" % titles)
    for title in titles:
        expect("\n%s:\n\n" % title in summary, "no section %r in summary.txt" % title)
    expect("Decoy Beside The Link" not in summary, "the file beside the link was read")
    print("bundle with %d entries, sections: %s" % (len(names), ", ".join(titles)))


def check_keelcheck(ctx):
    """The unpacked keelcheck, started through its /usr/bin link with no
    argument, checks the shipped folder beside the real program and finds
    nothing."""
    if not ctx.with_keelcheck:
        raise Skipped("keelcheck is not part of this build")
    root = ctx.unpack()
    # A broken file beside the link: it must not be what is checked.
    decoy = os.path.join(root, "usr", "bin", "xml", "config")
    os.makedirs(decoy)
    with open(os.path.join(decoy, "broken.xml"), "w") as f:
        f.write("<keelConfig><fileGroup>\n")
    link = os.path.join(root, "usr", "bin", "keelcheck")
    expect(os.readlink(link) == INSTALL_ROOT + "/keelcheck", "link: " + os.readlink(link))
    work = os.path.join(ctx.scratch, "work")
    os.makedirs(work)

    status, out, err, _ = run_isolated(ctx, root, [link], work, tag="default")
    out = LOG_RECORD.sub("", out)
    print(out + err)
    expect(status == 0, "keelcheck with no argument exited with %d:\n%s%s" % (status, out, err))
    expect(out.strip() == "", "findings in the shipped set:\n" + out)

    status, out, err, _ = run_isolated(ctx, root, [link, INSTALL_ROOT + "/xml/config/"],
                                       work, tag="folder")
    expect(status == 0, "keelcheck on the installed folder exited with %d:\n%s%s"
           % (status, out, err))

    # And it does report: the broken file, named on its own, is a finding.
    status, out, err, _ = run_isolated(ctx, root, [link, os.path.join(decoy, "broken.xml")],
                                       work, tag="broken")
    expect(status == 1 and "error" in out + err,
           "keelcheck on a broken file exited with %d:\n%s%s" % (status, out, err))
    print("no finding in the shipped set")


def check_lintian(ctx):
    """lintian reports no error and no warning; every override is used and
    carries a reason."""
    overrides = os.path.join(ctx.source, "packaging", "lintian-overrides")
    with open(overrides) as f:
        lines = f.read().splitlines()
    for i, line in enumerate(lines):
        if line.strip() and not line.startswith("#"):
            expect(i > 0 and lines[i - 1].startswith("#"),
                   "override without a reason above it: " + line)
    result = run(["lintian", "--info", "--fail-on", "error,warning", ctx.deb()])
    print(result.stdout + result.stderr)
    tagged = [l for l in result.stdout.splitlines() if re.match(r"[EW]: ", l)]
    expect(not tagged, "lintian:\n" + "\n".join(tagged))
    expect(result.returncode == 0, "lintian exited with %d" % result.returncode)
    for tag in ("unused-override", "mismatched-override"):
        expect(tag not in result.stdout, "lintian reports " + tag)


def usage_options(ctx, root):
    """The options that the unpacked keelcli's usage lists."""
    link = os.path.join(root, "usr", "bin", "keelcli")
    work = os.path.join(ctx.scratch, "usage")
    os.makedirs(work, exist_ok=True)
    status, out, _, _ = run_isolated(ctx, root, [link, "-h"], work, tag="usage")
    expect(status == 0, "keelcli -h exited with %d" % status)
    options = [o for pair in USAGE_OPTION.findall(LOG_RECORD.sub("", out)) for o in pair if o]
    expect(len(options) == 11, "options in the usage: %s" % options)
    return options


def check_manpages(ctx):
    """Every manual page, in the tree and in the package, renders with
    man --warnings and nothing on standard error; the pages cover the
    options and the vocabulary."""
    root = ctx.unpack()
    sources = sorted(os.path.join(ctx.source, "man", n)
                     for n in os.listdir(os.path.join(ctx.source, "man")))
    installed = [os.path.join(root, "usr/share/man/man%s/%s.gz" % (p.rsplit(".", 1)[1], p))
                 for p in manual_pages(ctx)]
    rendered = {}
    for page in sources + installed:
        for width in (None, "60", "120"):
            env = {k: v for k, v in os.environ.items() if k not in ("MANWIDTH", "COLUMNS")}
            env["LANG"] = "C.UTF-8"
            if width:
                env["MANWIDTH"] = width
            result = run(["man", "--warnings", "-l", page], env=env)
            expect(result.returncode == 0, "man %s exited with %d" % (page, result.returncode))
            expect(result.stderr == "", "man %s (width %s):\n%s" % (page, width, result.stderr))
            expect("NAME" in result.stdout, "man %s rendered nothing" % page)
            if width is None:
                rendered[os.path.basename(page)] = result.stdout

    keelcli_page = rendered["keelcli.1"]
    for heading in ("SYNOPSIS", "OPTIONS", "RUN MODES", "THE BUNDLE", "FILES",
                    "ENVIRONMENT", "EXIT STATUS", "EXAMPLES"):
        expect("\n" + heading + "\n" in keelcli_page, "keelcli(1) has no " + heading)
    for option in usage_options(ctx, root):
        expect(re.search(r"(^|\s)%s\b" % re.escape(option), keelcli_page),
               "keelcli(1) does not describe " + option)
    for word in ("summary.txt", "VTC_LOGGING_OUTPUT", INSTALL_ROOT + "/xml/config/"):
        expect(word in keelcli_page.replace("\u2010\n", "").replace("-\n", "-"),
               "keelcli(1) does not mention " + word)

    format_page = rendered["keel-instructions.5"]
    vocabulary = ["fileGroup", "treeRootName", "directoryName", "file", "id", "name",
                  "description", "default", "keel", "os", "opsys", "configure", "title",
                  "file_copy_action", "directory_copy_action", "use_extern_action", "loc",
                  "gather_newest", "pattern", "path", "plugin", "regis", "args",
                  "admin_args", "replace_args", "temp_out", "stdout", "clear_log", "apply",
                  "truncate_type", "$NAME/", "[BUNDLE_DIR]", "[USER]"]
    for word in vocabulary:
        expect(word in format_page, "keel-instructions(5) does not mention " + word)
    for heading in ("ELEMENTS", "ACTIONS", "WILDCARDS", "VARIABLES", "CLEARING", "TEXT",
                    "EXAMPLE", "FILES"):
        expect("\n" + heading + "\n" in format_page, "keel-instructions(5) has no " + heading)
    expect("keel-instructions.rng" in format_page, "no schema file in keel-instructions(5)")
    print("rendered: " + ", ".join(sorted(rendered)))


def manual_example(ctx):
    """The complete example of keel-instructions(5), as a reader sees it."""
    env = dict(os.environ, LANG="C.UTF-8", MANWIDTH="200")
    text = run(["man", "-l", os.path.join(ctx.source, "man", "keel-instructions.5")],
               env=env).stdout
    start = text.index("<?xml")
    end = text.index("</keelConfig>", start) + len("</keelConfig>")
    line_start = text.rindex("\n", 0, start) + 1
    indent = start - line_start
    lines = text[line_start:end].split("\n")
    return "\n".join(l[indent:] for l in lines) + "\n"


def check_example(ctx):
    """The complete example of the format page, copied as printed, is
    well-formed, valid against the schema and clean for keelcheck."""
    folder = os.path.join(ctx.scratch, "example")
    os.makedirs(folder)
    os.chmod(folder, 0o755)
    example = os.path.join(folder, "keel_example.xml")
    with open(example, "w") as f:
        f.write(manual_example(ctx))
    os.chmod(example, 0o644)
    result = run(["xmllint", "--noout", example])
    expect(result.returncode == 0, "xmllint: " + result.stderr)
    for schema in ctx.schemas():
        result = run(["xmllint", "--noout", "--relaxng",
                      os.path.join(ctx.source, "xml", "schema", schema), example])
        expect(result.returncode == 0, "%s: %s" % (schema, result.stderr))
    if ctx.with_keelcheck:
        root = ctx.unpack()
        link = os.path.join(root, "usr", "bin", "keelcheck")
        status, out, err, _ = run_isolated(ctx, root, [link, example], folder)
        out = LOG_RECORD.sub("", out)
        expect(status == 0 and out.strip() == "",
               "keelcheck on the example (%d):\n%s%s" % (status, out, err))
    print("example: %d lines, checked against %s" % (
        open(example).read().count("\n"),
        ", ".join(["xmllint"] + ctx.schemas() + (["keelcheck"] if ctx.with_keelcheck else []))))


def complete(ctx, root, command, words, cwd):
    """COMPREPLY of the installed completion for `words`, the last being the
    word under the cursor, loaded the way bash-completion loads it."""
    share = os.path.join(root, "usr", "share")
    loader = "/usr/share/bash-completion/bash_completion"
    if os.path.exists(loader):
        load = "source %s; __load_completion %s || exit 3" % (loader, command)
    else:
        load = "source %s" % shlex.quote(os.path.join(
            share, "bash-completion", "completions", command))
    script = "\n".join([
        load,
        "registered=$(complete -p %s) || exit 4" % command,
        "[ \"$registered\" = 'complete -F _%s %s' ] || { echo \"$registered\" >&2; exit 5; }"
        % (command, command),
        "COMP_WORDS=(%s)" % " ".join(shlex.quote(w) for w in words),
        "COMP_CWORD=%d" % (len(words) - 1),
        "COMP_LINE=%s" % shlex.quote(" ".join(words)),
        "COMP_POINT=${#COMP_LINE}",
        "_%s %s %s %s" % (command, command, shlex.quote(words[-1]), shlex.quote(words[-2])),
        "printf '%s\\n' \"${COMPREPLY[@]}\"",
    ])
    env = {"PATH": os.environ["PATH"], "XDG_DATA_DIRS": share, "HOME": ctx.scratch}
    result = run(["bash", "--norc", "--noprofile", "-c", script], env=env, cwd=cwd)
    expect(result.returncode == 0, "completion of %s failed (%d): %s"
           % (words, result.returncode, result.stderr))
    return set(l for l in result.stdout.split("\n") if l)


def readline_listing(ctx, root, line):
    """What interactive bash lists for `line` followed by two tabs."""
    completion = os.path.join(root, "usr", "share", "bash-completion", "completions", "keelcli")
    pid, fd = pty.fork()
    if pid == 0:
        os.execve("/bin/bash", ["bash", "--norc", "--noprofile", "-i"],
                  {"PATH": "/usr/bin:/bin", "TERM": "dumb", "INPUTRC": "/dev/null",
                   "PS1": "READY> ", "HOME": ctx.scratch})
    try:
        def read_until(token, timeout=20):
            buffer = b""
            deadline = time.time() + timeout
            while token not in buffer and time.time() < deadline:
                ready, _, _ = select.select([fd], [], [], 0.2)
                if ready:
                    try:
                        chunk = os.read(fd, 4096)
                    except OSError:
                        break
                    if not chunk:
                        break
                    buffer += chunk
            return buffer

        read_until(b"READY> ")
        os.write(fd, ("source %s\n" % shlex.quote(completion)).encode())
        read_until(b"READY> ")
        os.write(fd, (line + "\t\t").encode())
        # The listing ends when readline draws the prompt and line again.
        shown = read_until(b"\nREADY> " + line.encode())
        os.write(fd, b"\x15exit\n")
    finally:
        os.close(fd)
        os.waitpid(pid, 0)
    return shown.decode("utf-8", "replace")


def check_completion(ctx):
    """The installed completion offers keelcli's options for "keelcli -",
    file names after -dst, and --plan and instruction files for keelcheck."""
    root = ctx.unpack()
    options = set(usage_options(ctx, root))

    folder = os.path.join(ctx.scratch, "files")
    os.makedirs(os.path.join(folder, "reports"))
    for name in ("report-a.zip", "other.txt", "a.xml", "b.XML.bak"):
        open(os.path.join(folder, name), "w").close()

    offered = complete(ctx, root, "keelcli", ["keelcli", "-"], folder)
    expect(offered == options, "keelcli -<TAB> offers %s" % sorted(offered))
    offered = complete(ctx, root, "keelcli", ["keelcli", "-tw"], folder)
    expect(offered == {"-twlogs"}, "keelcli -tw<TAB> offers %s" % sorted(offered))
    offered = complete(ctx, root, "keelcli", ["keelcli", "-twlogs", "-dst", "rep"], folder)
    expect(offered == {"report-a.zip", "reports"},
           "keelcli -dst rep<TAB> offers %s" % sorted(offered))
    offered = complete(ctx, root, "keelcli", ["keelcli", "-dst", "-"], folder)
    expect(not offered & options, "after -dst options are offered: %s" % sorted(offered))

    # Through readline itself, as a user's TAB TAB.
    listing = readline_listing(ctx, root, "keelcli -")
    shown = set(re.findall(r"(?<![\w-])(-\w+)", listing.split("\n", 1)[-1]))
    expect(options <= shown, "interactive keelcli -<TAB><TAB> listed %r" % listing)

    if ctx.with_keelcheck:
        offered = complete(ctx, root, "keelcheck", ["keelcheck", "--"], folder)
        expect(offered == {"--plan", "--help"}, "keelcheck --<TAB> offers %s" % sorted(offered))
        offered = complete(ctx, root, "keelcheck", ["keelcheck", "--plan", "a"], folder)
        expect(offered == {"a.xml"}, "keelcheck --plan a<TAB> offers %s" % sorted(offered))
        offered = complete(ctx, root, "keelcheck", ["keelcheck", ""], folder)
        expect(offered == {"a.xml", "reports"}, "keelcheck <TAB> offers %s" % sorted(offered))
    print("offered: %s" % " ".join(sorted(options)))


def check_tmpfiles(ctx):
    """The packaged tmpfiles.d rule, applied at boot by systemd-tmpfiles to a
    tree of its own, removes every working folder a run left in /tmp (links
    as links) and nothing else."""
    if shutil.which("systemd-tmpfiles") is None:
        raise Skipped("systemd-tmpfiles is not installed")
    root = ctx.unpack()
    rule = os.path.join(root, "usr", "lib", "tmpfiles.d", PACKAGE + ".conf")
    expect(os.path.isfile(rule), "no tmpfiles.d rule in the package")
    host = os.path.join(ctx.scratch, "host")
    tmp = os.path.join(host, "tmp")
    kept = os.path.join(host, "kept")
    os.makedirs(os.path.join(tmp, "KEEL_Temp_Bundle", "sub"))
    os.makedirs(os.path.join(tmp, "KEEL_Temp_Bundle__0101_0000_7", "logs"))
    os.makedirs(os.path.join(tmp, "KEEL_Temp_Bundle_0123456789abcdef"))
    os.makedirs(os.path.join(tmp, "KEEL_Temp_Bundles"))
    os.makedirs(kept)
    with open(os.path.join(kept, "keep.txt"), "w") as f:
        f.write("precious\n")
    os.symlink(kept, os.path.join(tmp, "KEEL_Temp_Bundle__0101_0000_8"))
    result = run(["systemd-tmpfiles", "--root=" + host, "--remove", "--boot", rule])
    expect(result.returncode == 0, "systemd-tmpfiles failed: " + result.stderr)
    left = sorted(os.listdir(tmp))
    expect(left == ["KEEL_Temp_Bundles"], "left in /tmp: %s" % left)
    expect(os.path.isfile(os.path.join(kept, "keep.txt")), "the link was followed")


CHECKS = {
    "build": check_build,
    "files": check_files,
    "install": check_install,
    "run": check_run,
    "keelcheck": check_keelcheck,
    "lintian": check_lintian,
    "manpages": check_manpages,
    "example": check_example,
    "completion": check_completion,
    "tmpfiles": check_tmpfiles,
}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("check", choices=sorted(CHECKS))
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--with-keelcheck", default="0")
    args = parser.parse_args()
    ctx = Context(args)
    try:
        CHECKS[args.check](ctx)
    except Skipped as skipped:
        print("skipped: %s" % skipped)
        return SKIP
    except CheckFailed as failure:
        print("FAILED: %s" % failure, file=sys.stderr)
        return 1
    finally:
        shutil.rmtree(os.path.join(ctx.scratch, "tmp"), ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
