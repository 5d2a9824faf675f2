// The positional formatter: "%1".."%9" replaced by typed arguments.
#pragma once

#include <charconv>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

namespace Pelinor {

// Whether all of `text` is one decimal number of T's range, with no blank and no '+'. `out` is
// set only then.
template <typename T>
bool ParseWhole(std::string_view text, T& out) {
    T value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return false;
    out = value;
    return true;
}

class FormatArg {
  public:
    FormatArg(bool v) : text(v ? "true" : "false") {}
    template <typename T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) FormatArg(T v) : isNumber(true) {
        if constexpr (std::is_signed_v<T>) {
            number = static_cast<int64_t>(v);
        } else {
            unsignedNumber = static_cast<uint64_t>(v);
            isUnsigned = true;
        }
    }
    FormatArg(std::string_view s) : text(s) {}
    FormatArg(const std::string& s) : text(s) {}
    FormatArg(const char* s) : text(s ? s : "") {}

    void AppendTo(std::string& out) const;

  private:
    std::string_view text;
    int64_t number = 0;
    uint64_t unsignedNumber = 0;
    bool isNumber = false;
    bool isUnsigned = false;
};

// Appends "2026-11-22T23:40:00Z", or "2026-11-22T23:40:00.123Z" with milliseconds.
void AppendUtc(std::string& out, std::chrono::system_clock::time_point at,
               bool milliseconds = false);

// Unknown or missing placeholders are copied as they stand; "%%" gives "%".
std::string FormatPositional(std::string_view format, std::initializer_list<FormatArg> args);

template <typename... Args>
std::string Format(std::string_view format, const Args&... args) {
    return FormatPositional(format, {FormatArg(args)...});
}

}  // namespace Pelinor
