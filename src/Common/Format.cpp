#include "Common/Format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace orv {

std::string formatNumber(double v) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, res.ptr);
}

std::string FormatArg::objectText() const {
    switch (kind_) {
        case Kind::Null:
            return "(null)";
        case Kind::String:
            return str_;
        case Kind::Int:
            return std::to_string(i_);
        case Kind::UInt:
            return std::to_string(u_);
        case Kind::Double:
            return formatNumber(d_);
        case Kind::Pointer: {
            char buf[32];
            std::snprintf(buf, sizeof buf, "%p", p_);
            return buf;
        }
    }
    return {};
}

namespace {

template <typename T>
std::string printfOne(const std::string& conversion, T value) {
    char small[128];
    int n = std::snprintf(small, sizeof small, conversion.c_str(), value);
    if (n < 0) return {};
    if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(out.data(), out.size(), conversion.c_str(), value);
    out.resize(static_cast<size_t>(n));
    return out;
}

constexpr int kMaxFieldWidth = 1000;

// Applies the width and "-" flag of a "%@" or "%s" conversion to a finished text.
std::string pad(const std::string& text, const std::string& flags, int width, int precision) {
    std::string t = precision >= 0 && static_cast<size_t>(precision) < text.size()
                        ? text.substr(0, static_cast<size_t>(precision))
                        : text;
    if (width <= 0 || static_cast<size_t>(width) <= t.size()) return t;
    std::string fill(static_cast<size_t>(width) - t.size(), ' ');
    return flags.find('-') != std::string::npos ? t + fill : fill + t;
}

}  // namespace

std::string formatArgs(std::string_view fmt, const std::vector<FormatArg>& args) {
    std::string out;
    out.reserve(fmt.size() + 16 * args.size());
    size_t next = 0;  // next sequential argument
    size_t i = 0;
    const size_t n = fmt.size();
    while (i < n) {
        char c = fmt[i];
        if (c != '%') {
            size_t j = fmt.find('%', i);
            if (j == std::string_view::npos) j = n;
            out.append(fmt.substr(i, j - i));
            i = j;
            continue;
        }
        size_t start = i++;
        if (i >= n) {
            out.push_back('%');
            break;
        }
        if (fmt[i] == '%') {
            out.push_back('%');
            ++i;
            continue;
        }
        // Optional positional index "N$".
        size_t argIndex = SIZE_MAX;
        {
            size_t j = i;
            size_t num = 0;
            while (j < n && fmt[j] >= '0' && fmt[j] <= '9') num = num * 10 + size_t(fmt[j++] - '0');
            if (j < n && j > i && fmt[j] == '$' && num > 0) {
                argIndex = num - 1;
                i = j + 1;
            }
        }
        std::string flags;
        while (i < n && std::string_view("-+ #0").find(fmt[i]) != std::string_view::npos)
            flags.push_back(fmt[i++]);
        // Formats come from phrase tables people edit too: a width of nine digits must neither
        // overflow nor pad a line to gigabytes.
        int width = 0;
        while (i < n && fmt[i] >= '0' && fmt[i] <= '9')
            width = std::min(kMaxFieldWidth, width * 10 + (fmt[i++] - '0'));
        int precision = -1;
        if (i < n && fmt[i] == '.') {
            ++i;
            precision = 0;
            while (i < n && fmt[i] >= '0' && fmt[i] <= '9')
                precision = std::min(kMaxFieldWidth, precision * 10 + (fmt[i++] - '0'));
        }
        while (i < n && std::string_view("hlqzjtL").find(fmt[i]) != std::string_view::npos) ++i;
        if (i >= n) {  // dangling conversion: print it as text
            out.append(fmt.substr(start));
            break;
        }
        const char conv = fmt[i++];
        const size_t idx = argIndex != SIZE_MAX ? argIndex : next++;
        const FormatArg* arg = idx < args.size() ? &args[idx] : nullptr;

        std::string conversion = "%" + flags;
        if (width > 0) conversion += std::to_string(width);
        if (precision >= 0) conversion += "." + std::to_string(precision);

        auto asInt = [&]() -> long long {
            if (!arg) return 0;
            switch (arg->kind()) {
                case FormatArg::Kind::Int:
                    return arg->i();
                case FormatArg::Kind::UInt:
                    return static_cast<long long>(arg->u());
                case FormatArg::Kind::Double:
                    return static_cast<long long>(arg->d());
                default:
                    return 0;
            }
        };
        auto asDouble = [&]() -> double {
            if (!arg) return 0;
            switch (arg->kind()) {
                case FormatArg::Kind::Int:
                    return static_cast<double>(arg->i());
                case FormatArg::Kind::UInt:
                    return static_cast<double>(arg->u());
                case FormatArg::Kind::Double:
                    return arg->d();
                default:
                    return 0;
            }
        };

        if (!arg && conv != 'n') {
            out.append("(missing)");
            continue;
        }
        switch (conv) {
            case '@':
                out.append(pad(arg->objectText(), flags, width, -1));
                break;
            case 's':
                out.append(
                    pad(arg->kind() == FormatArg::Kind::String ? arg->str() : arg->objectText(),
                        flags, width, precision));
                break;
            case 'd':
            case 'i':
                out.append(printfOne(conversion + "lld", asInt()));
                break;
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                out.append(
                    printfOne(conversion + "ll" + conv, static_cast<unsigned long long>(asInt())));
                break;
            case 'c':
                out.append(printfOne(conversion + "c", static_cast<int>(asInt())));
                break;
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                out.append(printfOne(conversion + conv, asDouble()));
                break;
            case 'p':
                out.append(arg->kind() == FormatArg::Kind::Pointer
                               ? printfOne(std::string("%p"), arg->p())
                               : arg->objectText());
                break;
            default:
                // Unknown conversions are printed as written, never interpreted.
                out.append(fmt.substr(start, i - start));
                break;
        }
    }
    return out;
}

namespace {

// Length of the UTF-8 sequence starting at s[i] and its code point, or 0 when it is not one.
size_t utf8At(std::string_view s, size_t i, char32_t* cp) {
    const auto b = static_cast<unsigned char>(s[i]);
    size_t n = b >= 0xf0 && b <= 0xf4 ? 4 : b >= 0xe0 ? 3 : b >= 0xc2 && b < 0xe0 ? 2 : 0;
    if (n == 0 || i + n > s.size()) return 0;
    char32_t c = b & (0xff >> (n + 1));
    for (size_t k = 1; k < n; ++k) {
        const auto t = static_cast<unsigned char>(s[i + k]);
        if ((t & 0xc0) != 0x80) return 0;
        c = (c << 6) | (t & 0x3f);
    }
    // Overlong forms, surrogates and values past Unicode are not text.
    if ((n == 3 && c < 0x800) || (n == 4 && (c < 0x10000 || c > 0x10ffff)) ||
        (c >= 0xd800 && c <= 0xdfff))
        return 0;
    *cp = c;
    return n;
}

// Characters a terminal shows as nothing or uses to reorder what follows.
bool invisible(char32_t c) {
    return (c >= 0x80 && c < 0xa0) || c == 0xad || (c >= 0x200b && c <= 0x200f) ||
           (c >= 0x2028 && c <= 0x202e) || (c >= 0x2060 && c <= 0x2069) || c == 0xfeff;
}

std::string escaped(std::string_view text, size_t maxBytes) {
    std::string out;
    out.reserve(std::min(text.size(), maxBytes) + 8);
    size_t i = 0;
    while (i < text.size()) {
        std::string piece;
        size_t used = 1;
        const auto b = static_cast<unsigned char>(text[i]);
        char32_t cp = 0;
        char buf[16];
        if (b >= 0x20 && b < 0x7f) {
            piece.assign(1, static_cast<char>(b));
        } else if (b == '\n') {
            piece = "\\n";
        } else if (b == '\r') {
            piece = "\\r";
        } else if (b == '\t') {
            piece = "\\t";
        } else if (b >= 0x80 && (used = utf8At(text, i, &cp)) != 0) {
            if (invisible(cp)) {
                std::snprintf(buf, sizeof buf, "\\u{%x}", static_cast<unsigned>(cp));
                piece = buf;
            } else {
                piece.assign(text.substr(i, used));
            }
        } else {
            used = 1;
            std::snprintf(buf, sizeof buf, "\\x%02x", b);
            piece = buf;
        }
        if (out.size() + piece.size() > maxBytes) {
            out += "... (" + std::to_string(text.size() - i) + " more bytes)";
            return out;
        }
        out += piece;
        i += used;
    }
    return out;
}

}  // namespace

std::string outsideText(std::string_view text, size_t maxBytes) {
    return escaped(text, maxBytes);
}

std::string escapeUnprintable(std::string_view text) {
    return escaped(text, static_cast<size_t>(-1));
}

}  // namespace orv
