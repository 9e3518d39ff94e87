#pragma once

// A simulated desktop and phrase tables that show each phrase's key and arguments, so that
// assertions read "Button(<Disabled>|Save)" whatever the English wording is.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>

#include "accessibility/element/ORVAXElement.h"
#include "platform/sim/SimDesktop.h"
#include "speech/ORVAXSpeechDirectiveController.h"
#include "speech/OrvLocalization.h"
#include "speech/PhraseKeys.h"

namespace orv::test {

inline std::string shortName(const std::string& key) {
    for (const char* prefix : {"FocusEcho ", "Echo Char: "})
        if (key.rfind(prefix, 0) == 0) return key.substr(std::string(prefix).size());
    return key;
}

inline std::string poQuoted(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out.push_back('\\');
        out.push_back(c);
    }
    return out + "\"";
}

// A fresh directory, removed with its content when the object goes.
class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "orv-speech-XXXXXX").string();
        path_ = mkdtemp(pattern.data()) ? pattern : std::string();
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    void write(const std::string& relative, const std::string& text) const {
        const auto file = std::filesystem::path(path_) / relative;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }

  private:
    std::string path_;
};

// "Button(%@|%@)" for phrases with arguments, "<Disabled>" for the others; punctuation "<,>".
inline void writeShowingTables(const TempDir& dir, const std::string& sub = "") {
    const std::string at = sub.empty() ? "" : sub + "/";
    std::string echo, punctuation;
    for (const auto& info : echoPhraseKeys()) {
        std::string value = shortName(info.key);
        if (info.args.empty()) {
            value = "<" + value + ">";
        } else {
            value += "(";
            for (size_t i = 0; i < info.args.size(); ++i)
                value +=
                    std::string(i ? "|" : "") + (info.args[i] == PhraseArg::String ? "%@" : "%lu");
            value += ")";
        }
        echo += "msgid " + poQuoted(info.key) + "\nmsgstr " + poQuoted(value) + "\n\n";
    }
    for (char c : kPunctuationCharacters)
        punctuation += "msgid " + poQuoted(punctuationKey(c)) + "\nmsgstr " +
                       poQuoted("<" + std::string(1, c) + ">") + "\n\n";
    dir.write(at + "Echo.po", echo);
    dir.write(at + "Localizable.po", punctuation);
}

// Sets an environment variable for the object's life.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
        if (const char* old = getenv(name)) old_ = old;
        if (value)
            setenv(name, value->c_str(), 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_)
            setenv(name_, old_->c_str(), 1);
        else
            unsetenv(name_);
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

// Desktop installed, phrases from the showing tables.
class SpeechFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        writeShowingTables(tables);
        OrvLocalization::setPhraseDirectoryOverride(tables.path());
        ORVAXSpeechDirectiveController::resetForTesting();
        desk->install();
        app = &desk->addApplication(100, "com.example.app", "Example");
    }
    void TearDown() override {
        desk->uninstall();
        OrvLocalization::setPhraseDirectoryOverride(std::nullopt);
        ORVAXSpeechDirectiveController::resetForTesting();
    }

    sim::SimApp& addApp(pid_t pid, const std::string& bundle, const std::string& name) {
        return desk->addApplication(pid, bundle, name);
    }
    static void load(sim::SimApp& into, const char* tree) {
        auto result = into.load(tree);
        ASSERT_TRUE(result.ok()) << result.message();
    }
    void load(const char* tree) { load(*app, tree); }
    ORVAXElementRef element(const std::string& label, sim::SimApp* in = nullptr) {
        auto node = (in ? in : app)->find(label);
        EXPECT_TRUE(node) << label;
        return ORVAXElement::newForElement(desk->ref(node));
    }

    TempDir tables;
    std::shared_ptr<sim::SimDesktop> desk = sim::SimDesktop::create();
    sim::SimApp* app = nullptr;
};

using Controller = ORVAXSpeechDirectiveController;

inline std::string detailed(const ORVAXSpeechDirectiveRef& d) {
    return d ? d->detailedDescription.value_or("(nil text)") : "(no directive)";
}

}  // namespace orv::test
