// Bounded text functions over plain character buffers.
//
// All of them treat a null pointer as empty input and never write past
// `size` bytes. The logging layer renders into fixed thread-local buffers
// with them, so they must not allocate.
#ifndef COMMON_LOG_BOUNDEDTEXT_H_
#define COMMON_LOG_BOUNDEDTEXT_H_

#include <cstdarg>
#include <cstddef>

// Length up to the first NUL, or `size` when there is none in the bound.
size_t boundedLength(const char* text, size_t size);

// Copies at most size - 1 characters and terminates. Returns the bounded
// length of the source; with a null source does nothing and returns 0.
size_t boundedCopy(char* destination, const char* source, size_t size);

// Appends what fits, terminated; a destination already filling `size` stays.
void boundedAppend(char* destination, const char* source, size_t size);

// First position inside `size` whose character is in `characters`; null if
// none is found before the terminator.
const char* boundedFindAny(const char* text, const char* characters, size_t size);

// vsnprintf with a forced terminator at size - 1.
void boundedFormat(char* destination, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void boundedFormatV(char* destination, size_t size, const char* format, va_list arguments);

#endif  // COMMON_LOG_BOUNDEDTEXT_H_
