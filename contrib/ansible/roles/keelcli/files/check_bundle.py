"""Checks a fetched keelcli bundle on the controller.

Usage: check_bundle.py BUNDLE

Prints the names the bundle holds, one a line, and exits with 0 when the file
is a zip whose members all read back with their checksums and which holds the
summary.txt that every bundle run writes. Otherwise it says why on standard
error and exits with 1.
"""

import sys
import zipfile
import zlib


def main(argv):
    if len(argv) != 2:
        sys.stderr.write("usage: check_bundle.py BUNDLE\n")
        return 1
    path = argv[1]
    try:
        with zipfile.ZipFile(path) as bundle:
            damaged = bundle.testzip()
            names = bundle.namelist()
    except (OSError, EOFError, RuntimeError, NotImplementedError, zlib.error,
            zipfile.BadZipFile, zipfile.LargeZipFile) as error:
        sys.stderr.write(f"{path} is not a readable zip file: {error}\n")
        return 1
    if damaged is not None:
        sys.stderr.write(f"{path} is damaged: {damaged} does not match its checksum\n")
        return 1
    if "summary.txt" not in names:
        sys.stderr.write(f"{path} holds no summary.txt, so it is no keelcli bundle\n")
        return 1
    for name in names:
        print(name)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
