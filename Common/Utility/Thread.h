// The text of the calling thread's identity, for log lines.
#ifndef COMMON_UTILITY_THREAD_H_
#define COMMON_UTILITY_THREAD_H_

#include <string>

// The native thread identifier in lower-case hexadecimal, as Boost.Thread
// writes it, or "{Not-any-thread}" for a null identifier.
std::string currentThreadIdText();

#endif  // COMMON_UTILITY_THREAD_H_
