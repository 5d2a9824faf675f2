// C helpers for strings and paths; heap results are released with free().
#pragma once

#include <string>

// Whether the path is absolute.
bool File_IsFullPath(const std::string& path);
// printf-style format into a new heap string; never returns nullptr (panics out of memory).
char* Str_SafeAsprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Heap copy of a C string (nullptr gives ""); never returns nullptr.
char* UtilSafeStrdup0(const char* text);
