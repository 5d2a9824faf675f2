#include "platform/base/format.h"

#include <charconv>

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

}  // namespace Pelinor
