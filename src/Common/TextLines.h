#pragma once

#include <string_view>

namespace orv {

// Calls `each` with every line of a text file's contents, in order. Editors on some systems start
// UTF-8 files with a byte-order mark and end lines in "\r\n": the mark at the very start and the
// "\r" before each "\n" are dropped. A text that ends in "\n" has an empty last line.
template <typename F>
void forEachLine(std::string_view text, F&& each) {
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        each(line);
        start = end + 1;
    }
}

}  // namespace orv
