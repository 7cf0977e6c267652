#pragma once
#include <cstdio>

namespace kestor {

// Every message of the library goes through here to standard output, as given: callers pass the
// whole text, which starts with the literal prefix (see KESTOR_LOG) and ends with a line feed.
void logMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The same for an arbitrary stream; the text point writer formats its lines with it.
void logToStream(FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace kestor

// Prepends the library's fixed prefix at compile time, so the text stays one format string.
#define KESTOR_LOG(format, ...) ::kestor::logMessage("[KESTOR INFO] " format, ##__VA_ARGS__)
