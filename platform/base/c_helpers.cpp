#include "platform/base/c_helpers.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/base/lock.h"

bool File_IsFullPath(const std::string& path) {
    return !path.empty() && path.front() == '/';
}

char* Str_SafeAsprintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = nullptr;
    int result = vasprintf(&text, format, args);
    va_end(args);
    if (result < 0) Pelinor::Panic("Out of memory formatting %1", format);
    return text;
}

char* UtilSafeStrdup0(const char* text) {
    char* copy = strdup(text == nullptr ? "" : text);
    if (copy == nullptr) Pelinor::Panic("Out of memory copying a string");
    return copy;
}
