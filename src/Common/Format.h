#pragma once

// printf-style formatting with "%@" for strings, numbers and objects that describe themselves.
// Used by the logger and by the spoken phrase tables, so it never reads past its arguments:
// a missing or mismatched argument prints a marker instead of crashing.

#include <concepts>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace orv {

template <typename T>
concept Describable = requires(const T& t) {
    { t.description() } -> std::convertible_to<std::string>;
};

class FormatArg {
  public:
    enum class Kind { Null, String, Int, UInt, Double, Pointer };

    FormatArg() : kind_(Kind::Null) {}
    FormatArg(std::nullptr_t) : kind_(Kind::Null) {}
    FormatArg(const std::string& s) : kind_(Kind::String), str_(s) {}
    FormatArg(std::string&& s) : kind_(Kind::String), str_(std::move(s)) {}
    FormatArg(std::string_view s) : kind_(Kind::String), str_(s) {}
    FormatArg(const char* s) : kind_(s ? Kind::String : Kind::Null), str_(s ? s : "") {}
    FormatArg(char* s) : FormatArg(static_cast<const char*>(s)) {}
    FormatArg(bool b) : kind_(Kind::Int), i_(b ? 1 : 0) {}

    template <std::signed_integral T>
    FormatArg(T v) : kind_(Kind::Int), i_(static_cast<int64_t>(v)) {}
    template <std::unsigned_integral T>
    requires(!std::same_as<T, bool>) FormatArg(T v)
        : kind_(Kind::UInt), u_(static_cast<uint64_t>(v)) {}
    template <std::floating_point T>
    FormatArg(T v) : kind_(Kind::Double), d_(static_cast<double>(v)) {}
    // Enumerations print as their numbers (an error code, not a truth value).
    template <typename T>
    requires std::is_enum_v<T> FormatArg(T v) : kind_(Kind::Int), i_(static_cast<int64_t>(v)) {}

    template <Describable T>
    FormatArg(const T& obj) : kind_(Kind::String), str_(obj.description()) {}
    template <Describable T>
    FormatArg(const std::shared_ptr<T>& obj)
        : kind_(obj ? Kind::String : Kind::Null),
          str_(obj ? std::string(obj->description()) : "") {}
    template <Describable T>
    FormatArg(T* obj)
        : kind_(obj ? Kind::String : Kind::Null),
          str_(obj ? std::string(obj->description()) : "") {}

    // Any other pointer is printed by address ("%p").
    FormatArg(const void* p) : kind_(p ? Kind::Pointer : Kind::Null), p_(p) {}

    Kind kind() const { return kind_; }
    const std::string& str() const { return str_; }
    int64_t i() const { return i_; }
    uint64_t u() const { return u_; }
    double d() const { return d_; }
    const void* p() const { return p_; }

    // What "%@" prints for this argument.
    std::string objectText() const;

  private:
    Kind kind_;
    std::string str_;
    int64_t i_ = 0;
    uint64_t u_ = 0;
    double d_ = 0;
    const void* p_ = nullptr;
};

std::string formatArgs(std::string_view format, const std::vector<FormatArg>& args);

template <typename... A>
std::string format(std::string_view fmt, A&&... args) {
    return formatArgs(fmt, std::vector<FormatArg>{FormatArg(std::forward<A>(args))...});
}

// Shortest text that reads back as the same number: "100", "0.5", "830.25".
std::string formatNumber(double v);

// Text that came from outside (a file, a datagram, an application) made safe for one line of a
// message: control bytes, bytes that are not UTF-8 and invisible or direction-changing characters
// are written as escapes (\n, \x1b, \u{feff}), and what passes maxBytes is cut with a note of how
// much was left out. A NUL no longer ends the message.
std::string outsideText(std::string_view text, size_t maxBytes = 160);

// The same escapes without the cut: what a log sink writes, so one message is one line.
std::string escapeUnprintable(std::string_view text);

}  // namespace orv
