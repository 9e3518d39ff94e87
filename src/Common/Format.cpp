#include "Common/Format.h"

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
        int width = 0;
        while (i < n && fmt[i] >= '0' && fmt[i] <= '9') width = width * 10 + (fmt[i++] - '0');
        int precision = -1;
        if (i < n && fmt[i] == '.') {
            ++i;
            precision = 0;
            while (i < n && fmt[i] >= '0' && fmt[i] <= '9')
                precision = precision * 10 + (fmt[i++] - '0');
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

}  // namespace orv
