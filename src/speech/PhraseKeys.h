#pragma once

// Every phrase the speech side looks up, with the kinds of the arguments its text is filled with.
// Code reaches a phrase only through one of these constants, so the argument list of a lookup is
// checked by the compiler, and the table test checks the shipped tables against the same list.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

enum class PhraseArg {
    String,    // "%@"
    Unsigned,  // "%lu"
};

// A phrase of the "Echo" table taking arguments of the kinds A, in that order. A phrase without
// arguments is used as it stands, never as a format.
template <PhraseArg... A>
struct Phrase {
    std::string_view key;
};

namespace phrase_kinds {
inline constexpr PhraseArg S = PhraseArg::String;
inline constexpr PhraseArg U = PhraseArg::Unsigned;
}  // namespace phrase_kinds

// X(constant, key, argument kinds...)
#define ORV_ECHO_PHRASES(X)                                             \
    X(kFocusEchoDisabled, "FocusEcho Disabled")                         \
    X(kFocusEchoLink, "FocusEcho Link")                                 \
    X(kFocusEchoButton, "FocusEcho Button", S, S)                       \
    X(kFocusEchoMenuButton, "FocusEcho MenuButton", S, S)               \
    X(kFocusEchoPopupButton, "FocusEcho PopupButton", S, S)             \
    X(kFocusEchoRole, "FocusEcho Role", S)                              \
    X(kFocusEchoDisclosure, "FocusEcho Disclosure", S)                  \
    X(kFocusEchoCheckbox, "FocusEcho Checkbox", S, S)                   \
    X(kFocusEchoChecked, "FocusEcho Checked")                           \
    X(kFocusEchoUnchecked, "FocusEcho Unchecked")                       \
    X(kFocusEchoRadioButton, "FocusEcho RadioButton", S, S)             \
    X(kFocusEchoSelected, "FocusEcho Selected")                         \
    X(kFocusEchoNotSelected, "FocusEcho NotSelected")                   \
    X(kFocusEchoWindow, "FocusEcho Window", S)                          \
    X(kFocusEchoMenuItem, "FocusEcho MenuItem", S)                      \
    X(kFocusEchoDisabledMenuItem, "FocusEcho DisabledMenuItem", S)      \
    X(kFocusEchoMenu, "FocusEcho Menu", S)                              \
    X(kFocusEchoMenuBarItem, "FocusEcho MenuBarItem", S)                \
    X(kFocusEchoSlider, "FocusEcho Slider", S)                          \
    X(kFocusEchoList, "FocusEcho List", U)                              \
    X(kFocusEchoGroup, "FocusEcho Group", U)                            \
    X(kFocusEchoGrid, "FocusEcho Grid", U)                              \
    X(kFocusEchoOutline, "FocusEcho Outline", U)                        \
    X(kFocusEchoWebArea, "FocusEcho WebArea", S)                        \
    X(kFocusEchoTextAreaEmpty, "FocusEcho TextArea Empty")              \
    X(kFocusEchoTextArea, "FocusEcho TextArea", U)                      \
    X(kFocusEchoTextField, "FocusEcho TextField", S)                    \
    X(kFocusEchoTextFieldEmpty, "FocusEcho TextField Empty")            \
    X(kFocusEchoTextFieldContainer, "FocusEcho TextField Container", S) \
    X(kFocusEchoModCommand, "FocusEcho modCommand")                     \
    X(kFocusEchoModShift, "FocusEcho modShift")                         \
    X(kFocusEchoModOption, "FocusEcho modOption")                       \
    X(kFocusEchoModControl, "FocusEcho modControl")                     \
    X(kEchoCharBackslash, "Echo Char: BACKSLASH")                       \
    X(kEchoCharTab, "Echo Char: TAB")                                   \
    X(kEchoCharSpace, "Echo Char: SPACE")                               \
    X(kEchoCharDownArrow, "Echo Char: DOWNARROW")                       \
    X(kEchoCharDelete, "Echo Char: DELETE")                             \
    X(kEchoCharLeftArrow, "Echo Char: LEFTARROW")                       \
    X(kEchoCharUpArrow, "Echo Char: UPARROW")                           \
    X(kEchoCharRightArrow, "Echo Char: RIGHTARROW")                     \
    X(kEchoCharEscape, "Echo Char: ESCAPE")                             \
    X(kEchoCharFnFn, "Echo Char: FnFn")

namespace phrases {
using namespace phrase_kinds;
#define ORV_DECLARE_PHRASE(name, key, ...) inline constexpr Phrase<__VA_ARGS__> name{key};
ORV_ECHO_PHRASES(ORV_DECLARE_PHRASE)
#undef ORV_DECLARE_PHRASE
}  // namespace phrases

struct PhraseKeyInfo {
    std::string key;
    std::vector<PhraseArg> args;
};

// Every phrase of the "Echo" table, in declaration order.
const std::vector<PhraseKeyInfo>& echoPhraseKeys();

// The table that holds the spoken names of punctuation keys, and the characters it names.
inline constexpr std::string_view kPunctuationTable = "Localizable";
inline constexpr std::string_view kPunctuationCharacters = "!\"#$%&'()*+,-./:;<=>?[]`{|}";
// "Echo Char: " followed by the character.
std::string punctuationKey(char c);
bool isNamedPunctuation(char c);

// The argument kinds a phrase text's conversions take, in argument order: "%@" a string, "%lu"
// (also "%u", "%llu", "%zu") an unsigned count, with "%%" as a literal percent sign. Positional
// forms ("%2$@") are accepted when every argument is named exactly once and sequential forms are
// not mixed in. nullopt, with the reason in *error, for anything else.
std::optional<std::vector<PhraseArg>> phraseConversions(std::string_view text,
                                                        std::string* error = nullptr);

}  // namespace orv
