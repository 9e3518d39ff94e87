#include "speech/OrvLocalization.h"

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "Common/OrvLogger.h"
#include "Common/TextLines.h"

#ifndef ORV_PHRASE_DIRS
#define ORV_PHRASE_DIRS ""
#endif

namespace orv {

namespace {

// --- PO reading ---

struct PendingEntry {
    bool fuzzy = false;
    bool context = false;
    bool plural = false;
    bool bad = false;
    size_t line = 0;
    std::optional<std::string> msgid;
    std::optional<std::string> msgstr;
    std::string* field = nullptr;  // where continuation strings go

    bool empty() const { return !msgid && !msgstr && !context && !bad; }
};

std::string_view trimLeft(std::string_view s) {
    size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
    return s.substr(i);
}

// Reads one quoted string that must make up the rest of the line.
bool readQuoted(std::string_view s, std::string* out, std::string* error) {
    s = trimLeft(s);
    if (s.empty() || s[0] != '"') {
        *error = "expected a quoted string";
        return false;
    }
    size_t i = 1;
    while (true) {
        if (i >= s.size()) {
            *error = "unterminated string";
            return false;
        }
        const char c = s[i++];
        if (c == '"') break;
        if (c != '\\') {
            out->push_back(c);
            continue;
        }
        if (i >= s.size()) {
            *error = "unterminated string";
            return false;
        }
        switch (const char e = s[i++]) {
            case '"':
            case '\\':
                out->push_back(e);
                break;
            case 'n':
                out->push_back('\n');
                break;
            case 't':
                out->push_back('\t');
                break;
            case 'r':
                out->push_back('\r');
                break;
            default:
                *error = std::string("unknown escape \\") + e;
                return false;
        }
    }
    if (!trimLeft(s.substr(i)).empty()) {
        *error = "text after the closing quote";
        return false;
    }
    return true;
}

class PoReader {
  public:
    PhraseTable read(std::string_view text) {
        forEachLine(text, [this](std::string_view line) {
            ++lineNumber_;
            readLine(trimLeft(line));
        });
        flush();
        return std::move(table_);
    }

  private:
    void error(const std::string& what) {
        table_.errors.push_back("line " + std::to_string(lineNumber_) + ": " + what);
        entry_.bad = true;
        entry_.field = nullptr;
    }

    void flush() {
        if (entry_.empty()) {
            entry_ = {};
            return;
        }
        PendingEntry e = std::move(entry_);
        entry_ = {};
        if (e.bad) return;
        if (!e.msgid || !e.msgstr) {
            table_.errors.push_back("line " + std::to_string(e.line) +
                                    ": entry without msgid or msgstr");
            return;
        }
        // The header (empty msgid), fuzzy, contextual, plural and untranslated entries say
        // nothing about a key's phrase.
        if (e.msgid->empty() || e.fuzzy || e.context || e.plural || e.msgstr->empty()) return;
        if (!table_.entries.emplace(*e.msgid, *e.msgstr).second)
            table_.errors.push_back("line " + std::to_string(e.line) + ": duplicate msgid \"" +
                                    *e.msgid + "\"");
    }

    // A keyword that opens an entry closes the one before once that has its msgstr.
    void openEntry() {
        if (entry_.msgstr || entry_.bad) flush();
        if (entry_.line == 0) entry_.line = lineNumber_;
    }

    void readLine(std::string_view line) {
        if (line.empty()) {
            flush();
            return;
        }
        if (line[0] == '#') {
            if (entry_.msgstr || entry_.bad) flush();
            if (line.substr(0, 2) == "#,") {
                std::string flags(line.substr(2));
                std::istringstream words(flags);
                for (std::string w; std::getline(words, w, ',');) {
                    const auto b = w.find_first_not_of(" \t");
                    const auto e = w.find_last_not_of(" \t");
                    if (b != std::string::npos && w.substr(b, e - b + 1) == "fuzzy")
                        entry_.fuzzy = true;
                }
            }
            return;
        }
        if (line[0] == '"') {
            if (entry_.bad) return;
            if (!entry_.field) return error("string outside an entry");
            std::string piece, why;
            if (!readQuoted(line, &piece, &why)) return error(why);
            *entry_.field += piece;
            return;
        }
        size_t k = 0;
        while (k < line.size() && line[k] != ' ' && line[k] != '\t' && line[k] != '"') ++k;
        const std::string_view keyword = line.substr(0, k);
        std::string value, why;
        const bool quoted = readQuoted(line.substr(k), &value, &why);
        if (keyword == "msgctxt" || keyword == "msgid") {
            openEntry();
            if (keyword == "msgctxt") {
                if (entry_.context || entry_.msgid) return error("misplaced msgctxt");
                entry_.context = true;
                if (!quoted) return error(why);
                contextText_ = std::move(value);
                entry_.field = &contextText_;
                return;
            }
            if (entry_.msgid) return error("msgid without msgstr before it");
            if (!quoted) return error(why);
            entry_.msgid = std::move(value);
            entry_.field = &*entry_.msgid;
            return;
        }
        if (entry_.bad) return;
        if (keyword == "msgid_plural") {
            if (!entry_.msgid || entry_.msgstr) return error("misplaced msgid_plural");
            if (!quoted) return error(why);
            entry_.plural = true;
            pluralText_ = std::move(value);
            entry_.field = &pluralText_;
            return;
        }
        if (keyword == "msgstr" || keyword.substr(0, 7) == "msgstr[") {
            if (!entry_.msgid) return error("msgstr without msgid");
            if (!quoted) return error(why);
            if (keyword == "msgstr") {
                if (entry_.msgstr) return error("second msgstr");
                entry_.msgstr = std::move(value);
                entry_.field = &*entry_.msgstr;
            } else {
                // Plural forms are read for their syntax only.
                if (!entry_.msgstr) entry_.msgstr = std::string();
                pluralText_ = std::move(value);
                entry_.field = &pluralText_;
            }
            return;
        }
        error("unexpected \"" + std::string(keyword.substr(0, 20)) + "\"");
    }

    PhraseTable table_;
    PendingEntry entry_;
    std::string contextText_;
    std::string pluralText_;
    size_t lineNumber_ = 0;
};

// --- Search ---

std::optional<std::string>& overrideDirectory() {
    static std::optional<std::string> directory;
    return directory;
}

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

std::vector<std::string> splitColons(const std::string& list) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(':', start);
        if (end == std::string::npos) end = list.size();
        if (end > start) out.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

bool isRegularFile(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_regular_file(path, ec);
}

bool isDirectory(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_directory(path, ec);
}

// A language name is used as a directory name: nothing that could leave the phrase directory.
bool plausibleLanguage(const std::string& name) {
    if (name.empty() || name.size() > 32) return false;
    for (char c : name)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-')) return false;
    return true;
}

}  // namespace

PhraseTable parsePhraseTable(std::string_view text) {
    return PoReader().read(text);
}

std::optional<PhraseTable> readPhraseTable(const std::string& path, std::string* error) {
    auto fail = [error](std::string why) -> std::optional<PhraseTable> {
        if (error) *error = std::move(why);
        return std::nullopt;
    };
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return fail("no such file");
    const auto size = std::filesystem::file_size(path, ec);
    if (ec) return fail(ec.message());
    if (size > kMaxPhraseTableBytes)
        return fail("larger than " + std::to_string(kMaxPhraseTableBytes) + " bytes");
    std::ifstream in(path, std::ios::binary);
    if (!in) return fail("cannot be opened");
    std::string text(static_cast<size_t>(size), '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    return parsePhraseTable(text);
}

void OrvLocalization::setBundle(std::optional<PhraseBundle> bundle) {
    bundle_ = std::move(bundle);
    loaded_.clear();
    reportedMisses_.clear();
}

const PhraseTable* OrvLocalization::load(const std::string& directory, const std::string& table) {
    const std::string path = directory + "/" + table + ".po";
    if (auto it = loaded_.find(path); it != loaded_.end()) return it->second.get();
    std::string why;
    auto read = readPhraseTable(path, &why);
    if (!read) {
        // A fallback language need not have every table; a file that is there but unusable is
        // worth a line.
        std::error_code ec;
        if (std::filesystem::exists(path, ec))
            OrvLogger::addErrorMessageWithFormat("phrase table %@ not read: %@", path, why);
        loaded_.emplace(path, nullptr);
        return nullptr;
    }
    for (const auto& e : read->errors)
        OrvLogger::addWarningMessageWithFormat("phrase table %@ %@", path, e);
    auto& slot = loaded_[path];
    slot = std::make_unique<PhraseTable>(std::move(*read));
    return slot.get();
}

std::optional<std::string> OrvLocalization::lookUp(const std::string& table, std::string_view key) {
    if (!bundle_) return std::nullopt;
    for (const auto& directory : bundle_->directories) {
        const PhraseTable* t = load(directory, table);
        if (!t) continue;
        if (auto it = t->entries.find(key); it != t->entries.end()) return it->second;
    }
    const std::string miss = table + "\n" + std::string(key);
    if (reportedMisses_.insert(miss).second)
        OrvLogger::addWarningMessageWithFormat(
            "phrase \"%@\" missing from table %@ of %@", key, table,
            bundle_->directories.empty() ? std::string() : bundle_->directories.front());
    return std::nullopt;
}

std::string OrvLocalization::stringForKey(std::string_view key) {
    return lookUp(table_, key).value_or(std::string());
}

std::string OrvLocalization::localizedStringForKey(std::string_view key, std::string_view value,
                                                   const std::optional<std::string>& table) {
    auto found = lookUp(table.value_or(std::string(kPunctuationTable)), key);
    return found ? *found : std::string(value);
}

void OrvLocalization::setPhraseDirectoryOverride(std::optional<std::string> directory) {
    overrideDirectory() = std::move(directory);
}

const std::optional<std::string>& OrvLocalization::phraseDirectoryOverride() {
    return overrideDirectory();
}

std::vector<std::string> OrvLocalization::phraseDirectories() {
    if (overrideDirectory()) return {*overrideDirectory()};
    std::vector<std::string> dirs;
    auto add = [&dirs](const std::string& d) {
        for (const auto& known : dirs)
            if (known == d) return;
        dirs.push_back(d);
    };
    // Relative XDG entries are invalid and ignored, as the base directory rules ask.
    std::string dataHome = env("XDG_DATA_HOME");
    if (dataHome.empty() || dataHome[0] != '/') {
        const std::string home = env("HOME");
        dataHome = home.empty() ? std::string() : home + "/.local/share";
    }
    if (!dataHome.empty()) add(dataHome + "/ocuvane/phrases");
    std::string dataDirs = env("XDG_DATA_DIRS");
    if (dataDirs.empty()) dataDirs = "/usr/local/share:/usr/share";
    for (const auto& d : splitColons(dataDirs))
        if (d[0] == '/') add(d + "/ocuvane/phrases");
    for (const auto& d : splitColons(ORV_PHRASE_DIRS)) add(d);
    return dirs;
}

std::vector<std::string> OrvLocalization::languages() {
    std::string setting;
    for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        setting = env(name);
        if (!setting.empty()) break;
    }
    std::vector<std::string> out;
    auto add = [&out](const std::string& l) {
        if (!plausibleLanguage(l)) return;
        for (const auto& known : out)
            if (known == l) return;
        out.push_back(l);
    };
    for (std::string entry : splitColons(setting)) {
        entry = entry.substr(0, entry.find_first_of(".@"));
        if (entry == "C" || entry == "POSIX") continue;
        add(entry);
        if (auto sep = entry.find('_'); sep != std::string::npos) add(entry.substr(0, sep));
    }
    add("en");
    return out;
}

std::optional<PhraseBundle> OrvLocalization::findBundle(const std::string& table,
                                                        std::string* firstTried) {
    const std::string file = "/" + table + ".po";
    auto tried = [firstTried](const std::string& dir) {
        if (firstTried && firstTried->empty()) *firstTried = dir;
    };
    if (firstTried) firstTried->clear();
    const auto langs = languages();
    for (const auto& dir : phraseDirectories()) {
        if (overrideDirectory()) {
            tried(dir);
            if (isRegularFile(dir + file)) return PhraseBundle{{dir}};
        }
        for (size_t i = 0; i < langs.size(); ++i) {
            const std::string candidate = dir + "/" + langs[i];
            tried(candidate);
            if (!isRegularFile(candidate + file)) continue;
            PhraseBundle bundle{{candidate}};
            for (size_t j = i + 1; j < langs.size(); ++j)
                if (isDirectory(dir + "/" + langs[j]))
                    bundle.directories.push_back(dir + "/" + langs[j]);
            return bundle;
        }
    }
    return std::nullopt;
}

}  // namespace orv
