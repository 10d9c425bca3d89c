// What the process sets up before it opens anything or starts a thread.
//
// The tool runs as root, and the place it is started from decides what it
// inherits: a descriptor 0, 1 or 2 may be closed, and its output may be a
// pipe whose reader goes away (a pager that is quit) or a file under a size
// limit. None of this may end the run in a way that skips the clean-up.
//
// Called once from the entry, on the main thread, before logging opens.
#ifndef TOOLS_KEEL_KEELCLI_PROCESSSTART_H_
#define TOOLS_KEEL_KEELCLI_PROCESSSTART_H_

// Opens /dev/null on each of the descriptors 0, 1 and 2 that is closed. A
// closed one would otherwise be the next descriptor the tool opens (a log,
// a copy, the interrupt guard's pipe), and console text or a program's
// input would go to it. False when one stays closed.
bool makeStandardDescriptorsValid();

// Makes SIGPIPE and SIGXFSZ harmless to the process: a write to a pipe
// nobody reads fails with EPIPE and a write past the file-size limit with
// EFBIG, and the failure is reported where it happens, instead of the
// signal ending the process with its working folder in /tmp.
void catchWriteSignals();

#endif  // TOOLS_KEEL_KEELCLI_PROCESSSTART_H_
