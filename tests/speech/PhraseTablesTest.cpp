#include "speech/SpeechTestSupport.h"
#include "support/LogCapture.h"

namespace orv::test {
namespace {

const std::string kShipped = std::string(ORV_TESTS_DIR) + "/../data/phrases/en";

std::string argsText(const std::vector<PhraseArg>& args) {
    std::string out;
    for (auto a : args) out += a == PhraseArg::String ? "@" : "u";
    return out;
}

// --- The shipped English tables ---

const PhraseKeyInfo* registered(const std::string& key) {
    for (const auto& info : echoPhraseKeys())
        if (info.key == key) return &info;
    return nullptr;
}

// Every entry of a shipped Echo table is a key the code asks for, with the conversions its
// arguments need. Phrases without arguments are said as they stand, so a "%" would be heard.
void checkEchoEntries(const std::string& file, const PhraseTable& table) {
    EXPECT_EQ(table.errors, std::vector<std::string>{}) << file;
    for (const auto& [key, value] : table.entries) {
        const PhraseKeyInfo* info = registered(key);
        if (!info) {
            ADD_FAILURE() << file << ": unused key " << key;
            continue;
        }
        std::string why;
        auto conversions = phraseConversions(value, &why);
        ASSERT_TRUE(conversions) << file << ": " << key << ": " << why;
        EXPECT_EQ(argsText(*conversions), argsText(info->args)) << file << ": " << key;
        if (info->args.empty()) {
            EXPECT_EQ(value.find('%'), std::string::npos) << file << ": " << key;
        }
    }
}

TEST(ShippedPhrases, EveryEchoKeyIsThereWithMatchingConversions) {
    std::string error;
    auto table = readPhraseTable(kShipped + "/Echo.po", &error);
    ASSERT_TRUE(table) << error;
    checkEchoEntries("en/Echo.po", *table);
    for (const auto& info : echoPhraseKeys())
        EXPECT_TRUE(table->entries.count(info.key)) << "missing: " << info.key;
}

TEST(ShippedPhrases, EveryTranslationKeepsTheConversions) {
    // Translations may be partial (English fills the gaps) but never wrong.
    for (const auto& entry : std::filesystem::directory_iterator(kShipped + "/..")) {
        const std::string file = entry.path().string() + "/Echo.po";
        if (!std::filesystem::is_regular_file(file)) continue;
        std::string error;
        auto table = readPhraseTable(file, &error);
        ASSERT_TRUE(table) << file << ": " << error;
        checkEchoEntries(file, *table);
    }
}

TEST(ShippedPhrases, EveryNamedPunctuationKeyIsInTheDefaultTable) {
    std::string error;
    auto table = readPhraseTable(kShipped + "/" + std::string(kPunctuationTable) + ".po", &error);
    ASSERT_TRUE(table) << error;
    EXPECT_EQ(table->errors, std::vector<std::string>{});
    EXPECT_EQ(kPunctuationCharacters.size(), 27u);
    for (char c : kPunctuationCharacters) {
        auto it = table->entries.find(punctuationKey(c));
        ASSERT_NE(it, table->entries.end()) << c;
        EXPECT_FALSE(it->second.empty()) << c;
    }
    EXPECT_EQ(table->entries.size(), kPunctuationCharacters.size());
}

TEST(ShippedPhrases, TheEnglishPhrasesReadNaturally) {
    OrvLocalization l;
    l.setBundle(PhraseBundle{{kShipped}});
    l.setTable("Echo");
    EXPECT_EQ(l.phrase(phrases::kFocusEchoButton, l.phrase(phrases::kFocusEchoDisabled), "Save"),
              "dimmed Save, button");
    EXPECT_EQ(l.phrase(phrases::kFocusEchoButton, "", "Save"), "Save, button");
    EXPECT_EQ(l.phrase(phrases::kFocusEchoList, 3ul), "list, items: 3");
    EXPECT_EQ(l.localizedStringForKey("Echo Char: ,", "", std::nullopt), "comma");
}

// --- Reading PO text ---

TEST(PhraseTableReader, ReadsEntriesStringsAndEscapes) {
    auto t = parsePhraseTable(
        "\xEF\xBB\xBF# comment\r\n"
        "msgid \"\"\nmsgstr \"Language: de\\n\"\n\n"
        "#. for translators\n#, objc-format\n"
        "msgid \"A\"\nmsgstr \"\"\n\"first \"\n  \"second\"\n\n"
        "msgid \"B \\\"q\\\"\"\nmsgstr \"tab\\there\\\\\\nnext\"\n"
        "msgid \"C\"\r\nmsgstr \"crlf\"\r\n");
    EXPECT_EQ(t.errors, std::vector<std::string>{});
    EXPECT_EQ(t.entries,
              (std::map<std::string, std::string, std::less<>>{
                  {"A", "first second"}, {"B \"q\"", "tab\there\\\nnext"}, {"C", "crlf"}}));
}

TEST(PhraseTableReader, EntriesThatSayNothingAreLeftOut) {
    auto t = parsePhraseTable(
        "#, fuzzy\nmsgid \"Fuzzy\"\nmsgstr \"guess\"\n\n"
        "#, objc-format, fuzzy\nmsgid \"Fuzzy2\"\nmsgstr \"guess\"\n\n"
        "msgid \"Untranslated\"\nmsgstr \"\"\n\n"
        "msgctxt \"menu\"\nmsgid \"Context\"\nmsgstr \"x\"\n\n"
        "msgid \"One\"\nmsgid_plural \"Many\"\nmsgstr[0] \"a\"\nmsgstr[1] \"b\"\n\n"
        "#~ msgid \"Old\"\n#~ msgstr \"gone\"\n\n"
        "msgid \"Kept\"\nmsgstr \"yes\"\n");
    EXPECT_EQ(t.errors, std::vector<std::string>{});
    EXPECT_EQ(t.entries, (std::map<std::string, std::string, std::less<>>{{"Kept", "yes"}}));
}

TEST(PhraseTableReader, ABrokenEntryIsReportedAndTheRestKept) {
    auto t = parsePhraseTable(
        "msgid \"Open\nmsgstr \"x\"\n\n"     // 1: unterminated
        "msgid \"Bad\"\nmsgstr \"\\q\"\n\n"  // 4: unknown escape
        "msgid \"Good\"\nmsgstr \"fine\"\n\n"
        "msgid \"Good\"\nmsgstr \"again\"\n\n"  // 10: duplicate
        "msgstr \"orphan\"\n\n"                 // 13
        "msgid \"NoStr\"\n\n"                   // 15
        "bogus line\n"                          // 17
        "msgid \"Last\"\nmsgstr \"ok\" trailing\n"
        "msgid \"Tail\"\nmsgstr \"end\"");
    EXPECT_EQ(t.entries,
              (std::map<std::string, std::string, std::less<>>{{"Good", "fine"}, {"Tail", "end"}}));
    EXPECT_EQ(t.errors,
              (std::vector<std::string>{
                  "line 1: unterminated string", "line 5: unknown escape \\q",
                  "line 10: duplicate msgid \"Good\"", "line 13: msgstr without msgid",
                  "line 15: entry without msgid or msgstr", "line 17: unexpected \"bogus\"",
                  "line 19: text after the closing quote"}));
}

TEST(PhraseTableReader, RefusesWhatIsNotASmallFile) {
    TempDir dir;
    std::string error;
    EXPECT_FALSE(readPhraseTable(dir.path() + "/none.po", &error));
    EXPECT_EQ(error, "no such file");
    EXPECT_FALSE(readPhraseTable(dir.path(), &error));
    dir.write("big.po", std::string(kMaxPhraseTableBytes + 1, '#'));
    EXPECT_FALSE(readPhraseTable(dir.path() + "/big.po", &error));
}

TEST(PhraseConversions, AcceptOnlyTextAndCountConversions) {
    auto kinds = [](std::string_view text) {
        auto c = phraseConversions(text);
        return c ? argsText(*c) : std::string("error");
    };
    EXPECT_EQ(kinds("%@%@, button"), "@@");
    EXPECT_EQ(kinds("%lu items, 100%%"), "u");
    EXPECT_EQ(kinds("%u %zu %llu"), "uuu");
    EXPECT_EQ(kinds("plain"), "");
    EXPECT_EQ(kinds("%2$lu of %1$@, %1$@"), "@u");
    EXPECT_EQ(kinds("%d"), "error");
    EXPECT_EQ(kinds("%s"), "error");
    EXPECT_EQ(kinds("%5@"), "error");
    EXPECT_EQ(kinds("%l@"), "error");
    EXPECT_EQ(kinds("trailing %"), "error");
    EXPECT_EQ(kinds("%2$@"), "error");        // argument 1 never used
    EXPECT_EQ(kinds("%1$@ %@"), "error");     // mixed forms
    EXPECT_EQ(kinds("%1$@ %1$lu"), "error");  // one argument, two kinds
}

// --- Finding the tables ---

class PhraseLookup : public ::testing::Test {
  protected:
    void TearDown() override {
        OrvLocalization::setPhraseDirectoryOverride(std::nullopt);
        ORVAXSpeechDirectiveController::resetForTesting();
    }
    ScopedEnv language{"LANGUAGE", std::nullopt};
    ScopedEnv all{"LC_ALL", std::nullopt};
    ScopedEnv messages{"LC_MESSAGES", std::nullopt};
    ScopedEnv lang{"LANG", std::nullopt};
};

TEST_F(PhraseLookup, LanguagesComeFromTheFirstSetVariable) {
    EXPECT_EQ(OrvLocalization::languages(), std::vector<std::string>{"en"});
    {
        ScopedEnv l("LANG", "de_DE.UTF-8@euro");
        EXPECT_EQ(OrvLocalization::languages(), (std::vector<std::string>{"de_DE", "de", "en"}));
        ScopedEnv m("LC_MESSAGES", "C.UTF-8");
        EXPECT_EQ(OrvLocalization::languages(), std::vector<std::string>{"en"});
        ScopedEnv g("LANGUAGE", "fr_CA:../x:pt");
        EXPECT_EQ(OrvLocalization::languages(),
                  (std::vector<std::string>{"fr_CA", "fr", "pt", "en"}));
    }
}

TEST_F(PhraseLookup, SearchOrderFollowsTheDataDirectories) {
    ScopedEnv home("HOME", "/home/u");
    ScopedEnv dataHome("XDG_DATA_HOME", "relative/ignored");
    ScopedEnv dataDirs("XDG_DATA_DIRS", "/opt/share::rel:/usr/share");
    auto dirs = OrvLocalization::phraseDirectories();
    ASSERT_GE(dirs.size(), 3u);
    EXPECT_EQ(dirs[0], "/home/u/.local/share/ocuvane/phrases");
    EXPECT_EQ(dirs[1], "/opt/share/ocuvane/phrases");
    EXPECT_EQ(dirs[2], "/usr/share/ocuvane/phrases");
    // The checkout's own tables come last.
    EXPECT_EQ(dirs.back().substr(dirs.back().size() - 13), "/data/phrases");
    OrvLocalization::setPhraseDirectoryOverride("/chosen");
    EXPECT_EQ(OrvLocalization::phraseDirectories(), std::vector<std::string>{"/chosen"});
}

TEST_F(PhraseLookup, TheUsersDataDirectoryComesBeforeTheShippedTables) {
    TempDir data;
    data.write("ocuvane/phrases/en/Echo.po", "msgid \"FocusEcho Link\"\nmsgstr \"mine\"\n");
    ScopedEnv dataHome("XDG_DATA_HOME", data.path());
    ScopedEnv dataDirs("XDG_DATA_DIRS", "/nonexistent");
    EXPECT_EQ(ORVAXSpeechDirectiveController::localization().stringForKey("FocusEcho Link"),
              "mine");
    ScopedEnv otherHome("XDG_DATA_HOME", data.path() + "/empty");
    ORVAXSpeechDirectiveController::resetForTesting();
    EXPECT_EQ(ORVAXSpeechDirectiveController::localization().stringForKey("FocusEcho Link"),
              "link");
}

TEST_F(PhraseLookup, ALanguageFallsBackToItsBaseAndToEnglish) {
    TempDir dir;
    dir.write("de/Echo.po", "msgid \"A\"\nmsgstr \"de A\"\n\nmsgid \"B\"\nmsgstr \"\"\n");
    dir.write("en/Echo.po",
              "msgid \"A\"\nmsgstr \"en A\"\nmsgid \"B\"\nmsgstr \"en B\"\n"
              "msgid \"C\"\nmsgstr \"en C\"\n");
    ScopedEnv austrian("LANG", "de_AT.UTF-8");
    OrvLocalization::setPhraseDirectoryOverride(dir.path());
    auto bundle = OrvLocalization::findBundle("Echo");
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->directories,
              (std::vector<std::string>{dir.path() + "/de", dir.path() + "/en"}));
    LogCapture log(2);
    OrvLocalization l;
    l.setBundle(bundle);
    l.setTable("Echo");
    EXPECT_EQ(l.stringForKey("A"), "de A");
    EXPECT_EQ(l.stringForKey("B"), "en B");  // untranslated
    EXPECT_EQ(l.stringForKey("C"), "en C");
    EXPECT_EQ(log.count(), 0u);
    EXPECT_EQ(l.stringForKey("D"), "");
    EXPECT_EQ(l.stringForKey("D"), "");
    EXPECT_EQ(log.countContaining("(warning) phrase \"D\" missing from table Echo"), 1u);
    EXPECT_EQ(l.localizedStringForKey("Echo Char: ,", "fallback", std::nullopt), "fallback");

    // A directory holding the tables itself is a bundle without language subdirectories.
    dir.write("Echo.po", "msgid \"A\"\nmsgstr \"flat\"\n");
    bundle = OrvLocalization::findBundle("Echo");
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->directories, std::vector<std::string>{dir.path()});
}

TEST_F(PhraseLookup, WithoutTablesOneErrorAndThenSilence) {
    LogCapture log(2);
    TempDir dir;
    OrvLocalization::setPhraseDirectoryOverride(dir.path() + "/missing");
    ORVAXSpeechDirectiveController::resetForTesting();
    EXPECT_EQ(ORVAXSpeechDirectiveController::descriptiveChar(","), "");
    EXPECT_EQ(ORVAXSpeechDirectiveController::descriptiveShortcutChar(
                  ORVAXSpeechDirectiveController::descriptiveChar(","), AXValue(0)),
              std::nullopt);
    EXPECT_EQ(ORVAXSpeechDirectiveController::directiveForText(
                  ORVAXSpeechDirectiveController::localization().phrase(phrases::kFocusEchoWindow,
                                                                        "Doc")),
              nullptr);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{
                  "(error) initialize of speech directive controller failed to load Ocuvane "
                  "main bundle: " +
                  dir.path() + "/missing"});
}

TEST_F(PhraseLookup, ABrokenTableIsUsedForWhatItHoldsAndReported) {
    TempDir dir;
    dir.write("Echo.po", "msgid \"FocusEcho Link\"\nmsgstr \"link\"\n\nmsgid \"X\nmsgstr \"y\"\n");
    OrvLocalization::setPhraseDirectoryOverride(dir.path());
    ORVAXSpeechDirectiveController::resetForTesting();
    LogCapture log(2);
    EXPECT_EQ(ORVAXSpeechDirectiveController::localization().stringForKey("FocusEcho Link"),
              "link");
    EXPECT_EQ(log.countContaining("Echo.po line 4: unterminated string"), 1u);
}

}  // namespace
}  // namespace orv::test
