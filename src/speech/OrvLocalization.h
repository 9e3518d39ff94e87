#pragma once

// The phrase source: spoken phrases looked up by key in gettext PO tables. A "bundle" is the
// directory of tables for one language (Echo.po, Localizable.po, ...); docs/phrases.md describes
// the format and where bundles are looked for. Main thread only.

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Format.h"
#include "speech/PhraseKeys.h"

namespace orv {

// One parsed PO file: msgid -> msgstr for the entries that count (translated, not fuzzy, no
// context, no plural forms, not the header).
struct PhraseTable {
    std::map<std::string, std::string, std::less<>> entries;
    // "line N: what is wrong"; the entry concerned is left out, the rest is kept.
    std::vector<std::string> errors;
};

PhraseTable parsePhraseTable(std::string_view text);
// nullopt with the reason in *error when the file cannot be read (missing, not a regular file,
// larger than kMaxPhraseTableBytes).
std::optional<PhraseTable> readPhraseTable(const std::string& path, std::string* error = nullptr);
inline constexpr size_t kMaxPhraseTableBytes = 4u << 20;

// A bundle and the bundles its missing or untranslated entries are taken from, nearest first:
// "de_DE" falls back to "de" and then to "en" of the same phrase directory.
struct PhraseBundle {
    std::vector<std::string> directories;
};

// The C++ type a phrase argument of each kind is handed in as.
template <PhraseArg A>
struct PhraseArgType;
template <>
struct PhraseArgType<PhraseArg::String> {
    using type = std::string;
};
template <>
struct PhraseArgType<PhraseArg::Unsigned> {
    using type = unsigned long;
};

class OrvLocalization {
  public:
    OrvLocalization() = default;

    // Without a bundle every lookup answers as for an unknown key.
    void setBundle(std::optional<PhraseBundle> bundle);
    const std::optional<PhraseBundle>& bundle() const { return bundle_; }
    void setTable(std::string table) { table_ = std::move(table); }
    const std::string& table() const { return table_; }

    // The phrase for the key in the table set with setTable. An unknown key answers the empty
    // string, never the key itself: a phrase missing from a table is left unsaid rather than
    // read out as an identifier (an empty phrase makes no directive). The first miss of a key
    // is logged as a warning while a bundle is set.
    std::string stringForKey(std::string_view key);

    // The phrase for the key in the named table ("Localizable" when none), or `value` when the
    // key is unknown.
    std::string localizedStringForKey(std::string_view key, std::string_view value,
                                      const std::optional<std::string>& table);

    // A phrase filled with its arguments. One without arguments is returned as it stands.
    std::string phrase(const Phrase<>& p) { return stringForKey(p.key); }
    template <PhraseArg... A>
    requires(sizeof...(A) > 0) std::string
        phrase(const Phrase<A...>& p, const typename PhraseArgType<A>::type&... args) {
        return formatArgs(stringForKey(p.key), std::vector<FormatArg>{FormatArg(args)...});
    }

    // --- Where bundles are found. ---

    // A phrase directory chosen by the program (the --phrases option); nullopt to search the
    // standard places. An explicit directory is the only one looked at: it holds the tables
    // itself or holds language subdirectories.
    static void setPhraseDirectoryOverride(std::optional<std::string> directory);
    static const std::optional<std::string>& phraseDirectoryOverride();

    // The phrase directories in search order: the override alone, or $XDG_DATA_HOME/ocuvane/
    // phrases, each $XDG_DATA_DIRS entry + /ocuvane/phrases, then the built-in directories.
    static std::vector<std::string> phraseDirectories();
    // Language subdirectory names to try, best first, from LANGUAGE, LC_ALL, LC_MESSAGES or
    // LANG; always ending in "en".
    static std::vector<std::string> languages();
    // The first bundle holding `table`.po. On failure *firstTried is the first bundle directory
    // that was looked at.
    static std::optional<PhraseBundle> findBundle(const std::string& table,
                                                  std::string* firstTried = nullptr);

  private:
    std::optional<std::string> lookUp(const std::string& table, std::string_view key);
    const PhraseTable* load(const std::string& directory, const std::string& table);

    std::optional<PhraseBundle> bundle_;
    std::string table_;
    std::map<std::string, std::unique_ptr<PhraseTable>> loaded_;  // by file path; null: unreadable
    std::set<std::string, std::less<>> reportedMisses_;
};

}  // namespace orv
