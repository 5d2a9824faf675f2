#include "platform/base/format.h"

#include <charconv>
#include <cstdio>

namespace Pelinor {

void FormatArg::AppendTo(std::string& out) const {
    if (!isNumber) {
        out.append(text);
        return;
    }
    char digits[24];
    auto result = isUnsigned ? std::to_chars(digits, digits + sizeof digits, unsignedNumber)
                             : std::to_chars(digits, digits + sizeof digits, number);
    out.append(digits, result.ptr);
}

std::string FormatPositional(std::string_view format, std::initializer_list<FormatArg> args) {
    std::string out;
    out.reserve(format.size() + 32);
    for (size_t i = 0; i < format.size(); ++i) {
        char c = format[i];
        if (c != '%' || i + 1 == format.size()) {
            out.push_back(c);
            continue;
        }
        char next = format[i + 1];
        if (next == '%') {
            out.push_back('%');
            ++i;
        } else if (next >= '1' && next <= '9' && static_cast<size_t>(next - '1') < args.size()) {
            (args.begin() + (next - '1'))->AppendTo(out);
            ++i;
        } else {
            out.push_back(c);
        }
    }
    return out;
}

void AppendUtc(std::string& out, std::chrono::system_clock::time_point at, bool milliseconds) {
    using namespace std::chrono;
    auto ms = floor<std::chrono::milliseconds>(at);
    auto day = floor<days>(ms);
    year_month_day date(day);
    hh_mm_ss time(ms - day);
    char text[32];
    int length =
        std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02ld:%02ld:%02ld", int(date.year()),
                      unsigned(date.month()), unsigned(date.day()), long(time.hours().count()),
                      long(time.minutes().count()), long(time.seconds().count()));
    if (milliseconds) {
        std::snprintf(text + length, sizeof text - static_cast<size_t>(length), ".%03ld",
                      long(time.subseconds().count()));
    }
    out += text;
    out += 'Z';
}

}  // namespace Pelinor
