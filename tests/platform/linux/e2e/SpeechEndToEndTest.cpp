// Real speech on a real desktop: the agent follows the GTK test window's focus and speaks it,
// through the session's own speech-dispatcher or through espeak-ng rendering WAV files. Every
// focus change must be said with the phrase due for the widget's kind, and said to its end. Run
// inside tests/platform/linux/desktop-session.sh; elsewhere every test skips.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "AgentFixture.h"

namespace orv::e2e {
namespace {

namespace fs = std::filesystem;

const char* const kSettings =
    "speechEnabled=1,magnificationEnabled=1,focusEchoEnabled=1,focusEchoStyle=2";

// Long enough for the longest phrase here to be said at 180 words a minute, many times over.
constexpr double kSpeechPatience = 15;

// One --print-speech line.
struct Spoken {
    bool isSay = false;
    std::string text;  // what a say line says, or an end line's "finished" / "stopped"
    double rate = 0;
    Clock::time_point read;
    std::optional<Clock::time_point> ended;  // a say line's end line, when read
};

void appendUtf8(std::string* out, uint32_t c) {
    if (c < 0x80) {
        out->push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out->push_back(static_cast<char>(0xc0 | (c >> 6)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3f)));
    } else if (c < 0x10000) {
        out->push_back(static_cast<char>(0xe0 | (c >> 12)));
        out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3f)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3f)));
    } else {
        out->push_back(static_cast<char>(0xf0 | (c >> 18)));
        out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3f)));
        out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3f)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3f)));
    }
}

// The JSON string starting at line[at] (its opening quote), unescaped.
std::optional<std::string> jsonString(const std::string& line, size_t at) {
    if (at >= line.size() || line[at] != '"') return std::nullopt;
    std::string out;
    auto hex4 = [&](size_t i) -> std::optional<uint32_t> {
        if (i + 4 > line.size()) return std::nullopt;
        uint32_t v = 0;
        for (size_t k = i; k < i + 4; ++k) {
            const char c = line[k];
            v = v * 16 + (c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : 99);
            if (v > 0xffff) return std::nullopt;
        }
        return v;
    };
    for (size_t i = at + 1; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '"') return out;
        if (c != '\\') {
            out.push_back(c);
            continue;
        }
        if (++i >= line.size()) return std::nullopt;
        switch (line[i]) {
            case 'n':
                out.push_back('\n');
                break;
            case 't':
                out.push_back('\t');
                break;
            case 'r':
                out.push_back('\r');
                break;
            case 'b':
                out.push_back('\b');
                break;
            case 'f':
                out.push_back('\f');
                break;
            case 'u': {
                auto v = hex4(i + 1);
                if (!v) return std::nullopt;
                i += 4;
                uint32_t c32 = *v;
                // A surrogate pair.
                if (c32 >= 0xd800 && c32 < 0xdc00 && line.compare(i + 1, 2, "\\u") == 0) {
                    auto low = hex4(i + 3);
                    if (!low || *low < 0xdc00 || *low > 0xdfff) return std::nullopt;
                    c32 = 0x10000 + ((c32 - 0xd800) << 10) + (*low - 0xdc00);
                    i += 6;
                }
                appendUtf8(&out, c32);
                break;
            }
            default:
                out.push_back(line[i]);
        }
    }
    return std::nullopt;
}

// A say or end line; nothing for a focus line. The key after "time" tells which (a text that
// holds "end": cannot mislead it).
std::optional<Spoken> parseSpoken(const std::string& line, Clock::time_point read) {
    if (line.rfind("{\"time\":", 0) != 0) return std::nullopt;
    const size_t comma = line.find(',');
    if (comma == std::string::npos) return std::nullopt;
    Spoken s;
    s.read = read;
    if (line.compare(comma + 1, 6, "\"say\":") == 0) {
        s.isSay = true;
    } else if (line.compare(comma + 1, 6, "\"end\":") != 0) {
        return std::nullopt;
    }
    auto text = jsonString(line, comma + 7);
    if (!text) return std::nullopt;
    s.text = *text;
    if (const size_t r = line.rfind(",\"rate\":"); s.isSay && r != std::string::npos)
        s.rate = std::strtod(line.c_str() + r + 8, nullptr);
    return s;
}

// What the tests changed in the test window.
struct Shown {
    std::string fieldText;  // in "Name field"
    bool checked = false;   // "Check me"
};

// The phrase due for each of the test window's widgets, by the name the window reports: the
// English phrase of its kind with the widget's label, state or text. The text area holds
// "one\ntwo"; the password field is left empty.
std::vector<std::string> phraseFor(const std::string& name, const Shown& shown) {
    if (name == "First" || name == "Second") return {name + ", button"};
    if (name == "Name field") return {shown.fieldText + ", text"};
    if (name == "Check me")
        return {name + ", check box, " + (shown.checked ? "checked" : "unchecked")};
    // Radio A is its group's first button: GTK starts it selected.
    if (name == "Radio A") return {name + ", radio button, selected"};
    if (name.rfind("Row ", 0) == 0) return {name};
    if (name == "Notes") return {"text area, lines: 2"};
    return {"(no phrase known for " + name + ")"};
}

size_t characters(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

// What a WAV file written by the espeak-ng engine holds.
struct Wav {
    int sampleRate = 0;
    double seconds = 0;
    // Share of 20 ms frames louder than a whisper (RMS above 1% of full scale).
    double voiced = 0;
    int peak = 0;
};

uint32_t le(const std::string& b, size_t at, int bytes) {
    uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(b[at + i]);
    return v;
}

// A 16-bit mono PCM file whose header agrees with its length; why not otherwise.
std::optional<Wav> readWav(const fs::path& path, std::string* why) {
    std::ifstream in(path, std::ios::binary);
    const std::string b{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (b.size() < 12 || b.compare(0, 4, "RIFF") != 0 || b.compare(8, 4, "WAVE") != 0 ||
        le(b, 4, 4) != b.size() - 8) {
        *why = "not a RIFF WAVE file of its own length (" + std::to_string(b.size()) + " bytes)";
        return std::nullopt;
    }
    Wav w;
    bool pcm16 = false;
    for (size_t at = 12; at + 8 <= b.size();) {
        const std::string id = b.substr(at, 4);
        const uint32_t size = le(b, at + 4, 4);
        const size_t body = at + 8;
        if (body + size > b.size()) {
            *why = "chunk " + id + " runs past the end";
            return std::nullopt;
        }
        if (id == "fmt " && size >= 16) {
            pcm16 = le(b, body, 2) == 1 && le(b, body + 2, 2) == 1 && le(b, body + 14, 2) == 16;
            w.sampleRate = static_cast<int>(le(b, body + 4, 4));
        } else if (id == "data") {
            if (!pcm16 || w.sampleRate <= 0) {
                *why = "not 16-bit mono PCM";
                return std::nullopt;
            }
            const size_t samples = size / 2;
            w.seconds = static_cast<double>(samples) / w.sampleRate;
            const size_t frame = static_cast<size_t>(w.sampleRate) / 50;
            size_t frames = 0, loud = 0;
            for (size_t f = 0; f + frame <= samples; f += frame, ++frames) {
                double sum = 0;
                for (size_t i = f; i < f + frame; ++i) {
                    const int s = static_cast<int16_t>(le(b, body + 2 * i, 2));
                    w.peak = std::max(w.peak, std::abs(s));
                    sum += static_cast<double>(s) * s;
                }
                loud += std::sqrt(sum / frame) > 327;
            }
            w.voiced = frames ? static_cast<double>(loud) / frames : 0;
            return w;
        }
        at = body + size + (size & 1);
    }
    *why = "no data chunk";
    return std::nullopt;
}

class SpeechEndToEnd : public AgentFixture {
  protected:
    void TearDown() override {
        if (HasFailure()) {
            std::string log = "agent's standard output:\n";
            for (const auto& l : agent_.out.lines) log += l + "\n";
            std::fputs(log.c_str(), stderr);
        }
        if (agentStarted_) {
            const auto held = stalls();
            std::printf("[ speech   ] longest main-loop stall: %d ms\n",
                        held.empty() ? 0 : *std::max_element(held.begin(), held.end()));
        }
        AgentFixture::TearDown();
        if (!wavDir_.empty()) {
            unsetenv("ORV_ESPEAK_WAV_DIR");
            std::error_code ignored;
            fs::remove_all(wavDir_, ignored);
        }
    }

    // The speech lines the agent has written so far.
    std::vector<Spoken> speech() const {
        std::vector<Spoken> out;
        for (size_t i = 0; i < agent_.out.lines.size(); ++i)
            if (auto s = parseSpoken(agent_.out.lines[i], agent_.out.times[i])) out.push_back(*s);
        return out;
    }

    // Expects the next speech lines to be `pieces`, each said and then finished; any other line
    // in their place is a failure. A say line is due at once, its end once it has been said.
    // The say lines that came, with their ends.
    std::vector<Spoken> expectSaid(const std::vector<std::string>& pieces,
                                   const std::string& what) {
        std::vector<Spoken> says;
        for (const std::string& piece : pieces) {
            for (const bool say : {true, false}) {
                std::optional<Spoken> next;
                waitFor(
                    all(),
                    [&] {
                        const auto lines = speech();
                        if (lines.size() > heard_) next = lines[heard_];
                        return next.has_value();
                    },
                    say ? kPatience : kSpeechPatience);
                const std::string want = say ? "say \"" + piece + "\"" : "end \"finished\"";
                if (!next) {
                    ADD_FAILURE() << what << ": no speech line within "
                                  << (say ? kPatience : kSpeechPatience) << " s where " << want
                                  << " was due";
                    return says;
                }
                ++heard_;
                const std::string got =
                    std::string(next->isSay ? "say" : "end") + " \"" + next->text + "\"";
                if (got != want) {
                    ADD_FAILURE() << what << ": " << got << " where " << want << " was due";
                    return says;
                }
                if (say)
                    says.push_back(*next);
                else
                    says.back().ended = next->read;
            }
        }
        return says;
    }

    // Moves the focus to `name` by `action` (Tab by default) and waits for the agent to send its
    // area; then, unless `said` is false, expects its echo.
    std::vector<Spoken> focusOn(TestWindow& w, const std::string& name, bool said = true,
                                const std::function<void()>& action = {}) {
        const size_t at = w.proc.out.lines.size();
        const Area area = change(
            w, action ? action : [&] { tab(); });
        EXPECT_EQ(w.focusName(), name) << "the focus order changed";
        expectFocusArea(w, area, "focus on " + name);
        if (!said) {
            std::printf("[ speech   ] %-18s (not checked here)\n", name.c_str());
            return {};
        }
        auto says = expectSaid(phraseFor(name, shown_), "focus on " + name);
        long long focusedUs = -1;
        for (size_t i = at; i < w.proc.out.lines.size(); ++i)
            if (const std::string& l = w.proc.out.lines[i]; l.rfind("focus ", 0) == 0)
                focusedUs = std::atoll(l.substr(l.rfind(' ') + 1).c_str());
        note(name, says, focusedUs);
        return says;
    }

    // Presses space on the focused check box: said again with its new state.
    std::vector<Spoken> toggle() {
        const long long pressedUs = microseconds(Clock::now());
        EXPECT_EQ(runTool({"xdotool", "key", "space"}), 0);
        shown_.checked = !shown_.checked;
        auto says = expectSaid(phraseFor("Check me", shown_), "space on Check me");
        note("Check me (space)", says, pressedUs);
        return says;
    }

    static long long microseconds(Clock::time_point t) {
        return std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
    }

    // The window's time stamps are the monotonic clock, as steady_clock is on Linux; `fromUs`
    // below 0 is the start-up echo.
    static void note(const std::string& widget, const std::vector<Spoken>& says, long long fromUs) {
        for (const auto& s : says) {
            const std::string after =
                fromUs < 0 ? "at start-up"
                           : std::to_string((microseconds(s.read) - fromUs) / 1000) + " ms after";
            const double lasted =
                s.ended ? (microseconds(*s.ended) - microseconds(s.read)) / 1000.0 : -1;
            std::printf("[ speech   ] %-18s \"%s\" said %s, ended %.0f ms later\n", widget.c_str(),
                        s.text.c_str(), after.c_str(), lasted);
        }
    }

    // The window (with `fieldText` in its text field) and the agent speaking through `engine`.
    TestWindow& startSpeaking(const std::string& engine, const std::string& fieldText) {
        TestWindow& w = startWindow();
        shown_.fieldText = fieldText;
        w.proc.send("text " + fieldText);
        w.proc.send("sync");
        EXPECT_TRUE(waitFor(
            all(),
            [&] { return std::count(w.proc.out.lines.begin(), w.proc.out.lines.end(), "synced"); },
            kPatience));
        startAgent(w, {"--speech=" + engine, "--print-speech", "--speech-settings", kSettings});
        return w;
    }

    void needSpeechDispatcher() {
        // The session starts a daemon of its own and exports its address: without it the
        // session is broken, not merely a machine without speech.
        if (!std::getenv("SPEECHD_ADDRESS"))
            FAIL() << "SPEECHD_ADDRESS is not set: desktop-session.sh did not start its "
                      "speech-dispatcher";
    }

    size_t heard_ = 0;
    Shown shown_;
    fs::path wavDir_;
};

TEST_F(SpeechEndToEnd, SpeechDispatcherSaysEveryFocusedWidgetToItsEnd) {
    ASSERT_NO_FATAL_FAILURE(needSpeechDispatcher());
    TestWindow& w = startSpeaking("speech-dispatcher", "hello world");
    ASSERT_FALSE(HasFailure());
    note("First (start-up)", expectSaid(phraseFor("First", shown_), "start-up on First"), -1);

    for (const char* name : {"Second", "Name field"}) focusOn(w, name);
    // An empty field's text is an empty value, which the describers pass over: nothing is said.
    focusOn(w, "Password field", false);
    for (const char* name : {"Check me", "Radio A"}) focusOn(w, name);
    // Back, as the same text twice in a row would be said once.
    focusOn(w, "Check me", true, [&] { ASSERT_EQ(runTool({"xdotool", "key", "shift+Tab"}), 0); });
}

TEST_F(SpeechEndToEnd, CheckBoxToggledWithSpaceIsSaidWithItsNewState) {
    ASSERT_NO_FATAL_FAILURE(needSpeechDispatcher());
    TestWindow& w = startSpeaking("speech-dispatcher", "hello world");
    ASSERT_FALSE(HasFailure());
    expectSaid(phraseFor("First", shown_), "start-up on First");
    focusOn(w, "Check me", true, [&] { w.proc.send("focus Check me"); });
    toggle();
    // Away and back: the box did change, whether or not the change itself was said.
    focusOn(w, "Radio A");
    focusOn(w, "Check me", true, [&] { ASSERT_EQ(runTool({"xdotool", "key", "shift+Tab"}), 0); });
}

// GTK's list rows have no name: their text is the label inside.
TEST_F(SpeechEndToEnd, ListRowsAreSaidByTheirLabelAndTheTextAreaByItsLines) {
    ASSERT_NO_FATAL_FAILURE(needSpeechDispatcher());
    TestWindow& w = startSpeaking("speech-dispatcher", "hello world");
    ASSERT_FALSE(HasFailure());
    expectSaid(phraseFor("First", shown_), "start-up on First");
    focusOn(w, "Radio A", true, [&] { w.proc.send("focus Radio A"); });
    for (const char* name : {"Row 1", "Row 2", "Row 3", "Notes"}) focusOn(w, name);
}

TEST_F(SpeechEndToEnd, EspeakNgRendersEveryEchoToAWavFileAsLongAsItsText) {
    char dir[] = "/tmp/orv-speech-e2e-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    wavDir_ = dir;
    setenv("ORV_ESPEAK_WAV_DIR", dir, 1);
    TestWindow& w = startSpeaking("espeak-ng", "hello world");
    ASSERT_FALSE(HasFailure());

    std::vector<Spoken> says = expectSaid(phraseFor("First", shown_), "start-up on First");
    auto add = [&](const std::vector<Spoken>& more) {
        says.insert(says.end(), more.begin(), more.end());
    };
    for (const char* name : {"Second", "Name field"}) add(focusOn(w, name));
    focusOn(w, "Password field", false);
    for (const char* name : {"Check me", "Radio A"}) add(focusOn(w, name));
    ASSERT_FALSE(HasFailure());

    // Files are numbered by utterance in the agent: the n-th say line is the n-th file.
    std::vector<std::pair<std::string, Wav>> heard;
    for (size_t n = 0; n < says.size(); ++n) {
        std::string number = std::to_string(n + 1);
        number.insert(0, 6 - std::min<size_t>(6, number.size()), '0');
        const fs::path path = wavDir_ / ("utterance-" + number + ".wav");
        const std::string& text = says[n].text;
        std::string why;
        auto wav = readWav(path, &why);
        if (!wav) {
            ADD_FAILURE() << path << " for \"" << text
                          << "\": " << (fs::exists(path) ? why : "missing");
            continue;
        }
        const double perChar = 1000 * wav->seconds / characters(text);
        std::printf("[ speech   ] \"%s\": %.3f s, %.0f ms a character, %.0f%% voiced, peak %d\n",
                    text.c_str(), wav->seconds, perChar, 100 * wav->voiced, wav->peak);
        // 180 words a minute is about 70 ms a character; the bounds follow the rate used.
        const double scale = says[n].rate > 0 ? 180 / says[n].rate : 1;
        EXPECT_GE(perChar, 30 * scale) << "\"" << text << "\" is too short: " << wav->seconds;
        EXPECT_LE(perChar, 250 * scale) << "\"" << text << "\" is too long: " << wav->seconds;
        EXPECT_GE(wav->voiced, 0.3) << "\"" << text << "\" is mostly silence";
        heard.emplace_back(text, *wav);
    }
    // Speech as long whatever it says would pass the bounds above for most texts.
    for (const auto& [a, wa] : heard) {
        for (const auto& [b, wb] : heard) {
            if (characters(a) >= 2 * characters(b)) {
                EXPECT_GT(wa.seconds, wb.seconds) << "\"" << a << "\" against \"" << b << "\"";
            }
        }
    }

    // Nothing rendered that was not printed, nothing left half written.
    size_t files = 0;
    for (const auto& e : fs::directory_iterator(wavDir_)) {
        ++files;
        EXPECT_EQ(e.path().extension(), ".wav") << e.path();
    }
    EXPECT_EQ(files, says.size());
}

}  // namespace
}  // namespace orv::e2e
