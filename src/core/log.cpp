#include "core/log.h"

#include <cstdarg>

namespace kestor {

void logMessage(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stdout, format, args);
    va_end(args);
}

void logToStream(FILE* stream, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stream, format, args);
    va_end(args);
}

}  // namespace kestor
