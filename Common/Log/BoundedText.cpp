#include "Common/Log/BoundedText.h"

#include <cstdio>
#include <cstring>

size_t boundedLength(const char* text, size_t size) {
  if (text == nullptr || size == 0)
    return 0;
  const void* end = memchr(text, '\0', size);
  return end == nullptr ? size : static_cast<size_t>(static_cast<const char*>(end) - text);
}

size_t boundedCopy(char* destination, const char* source, size_t size) {
  if (source == nullptr)
    return 0;
  const size_t length = boundedLength(source, size);
  if (destination == nullptr || size == 0)
    return length;
  const size_t count = length < size - 1 ? length : size - 1;
  memcpy(destination, source, count);
  destination[count] = '\0';
  return length;
}

void boundedAppend(char* destination, const char* source, size_t size) {
  if (destination == nullptr || source == nullptr || size == 0)
    return;
  const size_t used = boundedLength(destination, size);
  if (used >= size - 1)
    return;
  boundedCopy(destination + used, source, size - used);
}

const char* boundedFindAny(const char* text, const char* characters, size_t size) {
  if (text == nullptr || characters == nullptr)
    return nullptr;
  for (size_t i = 0; i < size && text[i] != '\0'; ++i) {
    if (strchr(characters, text[i]) != nullptr)
      return text + i;
  }
  return nullptr;
}

void boundedFormatV(char* destination, size_t size, const char* format, va_list arguments) {
  if (destination == nullptr || format == nullptr || size == 0)
    return;
  vsnprintf(destination, size, format, arguments);
  destination[size - 1] = '\0';
}

void boundedFormat(char* destination, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  boundedFormatV(destination, size, format, arguments);
  va_end(arguments);
}
