"""The applications and the keys that drive each: every "key" step is one focus change measured;
"press" steps set something up and are not measured; "move" steps move the active window (the
area must follow); "caret" steps (a key) and "type" steps (text typed) each move the text cursor
once, measured against the toolkit's caret. Windows start moved to (150, 110).

The caret walks are entries of their own (NAME-caret, the same program started afresh), so that
the focus walks and their figures stay as they are; they are reported, not judged."""

import os
import shutil

HERE = os.path.dirname(os.path.abspath(__file__))


class Step:
    def __init__(self, kind, arg, label=None):
        self.kind, self.arg, self.label = kind, arg, label

    def __repr__(self):
        return f"{self.kind} {self.arg}"


def K(key, label=None):
    return Step("key", key, label or key)


def P(key):
    return Step("press", key)


def M(x, y):
    return Step("move", (x, y), f"move to {x},{y}")


def C(key, label=None):
    return Step("caret", key, label or key)


def T(text, label=None):
    return Step("type", text, label or f"type {text!r}")


def W(pattern, label):
    """Not measured: waits (bounded) until the focused text's caret line matches pattern."""
    return Step("await", pattern, label)


class App:
    def __init__(self, name, packages, program, argv, steps, env=None, start_bound=20.0,
                 setup=None, judged=True):
        self.name = name
        self.judged = judged   # its figures count towards the run's exit status
        self.packages = packages
        self.program = program
        self._argv = argv
        self._env = env or {}
        self.steps = steps
        self.start_bound = start_bound
        self.setup = setup

    def missing(self):
        if shutil.which(self.program) is None and not os.access(self.program, os.X_OK):
            return f"{self.program} not found (package {', '.join(self.packages)})"
        return None

    def argv(self, work):
        if self.setup:
            self.setup(work)
        return [a.replace("{work}", work).replace("{here}", HERE) for a in self._argv]

    def env(self, work):
        return {k: v.replace("{work}", work) for k, v in self._env.items()}

    def caret_walk(self, steps, env=None):
        """The same program, started afresh, for a walk of the text cursor."""
        return App(self.name + "-caret", self.packages, self.program, self._argv, steps,
                   env=dict(self._env, **(env or {})), start_bound=self.start_bound,
                   setup=self.setup, judged=False)


# --- GTK 3: gtk3-widget-factory (starts with the focus in the first combo box's entry) ---
GTK3 = App(
    "gtk3-widget-factory", ["gtk-3-examples"], "gtk3-widget-factory", ["gtk3-widget-factory"],
    steps=[
        K("Tab", "Tab to the combo's button"),
        K("space", "open the combo's list"),
        K("Down", "combo list: next item"),
        K("Down", "combo list: next item"),
        K("Up", "combo list: previous item"),
        K("Escape", "close the combo's list"),
        K("Tab", "Tab to the next entry"),
        K("F10", "F10: the page switcher"),
        K("Right", "next page's switch"),
        P("space"),
        K("alt+f", "File menu (Alt+F)"),
        K("Down", "File menu: next item"),
        K("Down", "File menu: next item"),
        K("Right", "Edit menu"),
        K("Down", "Edit menu: next item"),
        K("Left", "back to the File menu"),
        K("Escape", "close the submenu"),
        K("Escape", "close the menu bar"),
        K("Tab", "Tab to the third page's switch"),
        K("Tab", "Tab to the menu button"),
        K("Tab", "Tab to a spin button"),
        K("Tab", "Tab to a scale"),
        K("Tab", "Tab to a scale"),
        K("Tab", "Tab to the text view"),
        K("ctrl+Tab", "out of the text view to the list"),
        K("Down", "list: next row"),
        K("Down", "list: next row"),
        K("Up", "list: previous row"),
        K("F10", "F10: the page switcher again"),
        K("Tab", "Tab to the second page's switch"),
        K("Tab", "Tab to the third page's switch"),
        K("Tab", "Tab to the menu button"),
        K("space", "open the menu"),
        K("Down", "menu: next item"),
        K("Down", "menu: next item"),
        K("Down", "menu: next item"),
        K("Down", "menu: next item"),
        K("Down", "menu: About"),
        K("Return", "About dialog"),
        K("Tab", "dialog: Tab"),
        M(420, 240),
        K("Tab", "dialog moved: Tab"),
        K("Escape", "close the dialog"),
    ])

# --- GTK 4: gtk4-widget-factory (GL cannot start under Xvfb) ---
GTK4 = App(
    "gtk4-widget-factory", ["gtk-4-examples"], "gtk4-widget-factory", ["gtk4-widget-factory"],
    env={"GSK_RENDERER": "cairo"},
    steps=[
        K("Tab", "Tab to the combo's button"),
        K("space", "open the combo's list"),
        K("Down", "list: next item"),
        K("Down", "list: next item"),
        K("Up", "list: previous item"),
        K("Escape", "close the list"),
        K("Tab", "Tab to the next entry"),
        K("alt+2", "page 2 (mnemonic)"),
        K("Tab", "Tab to page 3's switch"),
        K("Tab", "Tab to the menu button"),
        K("space", "open the menu"),
        K("Down", "menu: next item"),
        K("Down", "menu: next item"),
        K("Escape", "close the menu"),
        K("F1", "About dialog"),
        K("Tab", "dialog: Tab"),
        M(420, 240),
        K("Tab", "dialog moved: Tab"),
        K("Escape", "close the dialog"),
        K("alt+1", "page 1 (mnemonic)"),
    ])

# --- Qt 5: the widget gallery from qtbase5-examples (a dialog: Escape would close it) ---
QT_GALLERY = "/usr/lib/x86_64-linux-gnu/qt5/examples/widgets/gallery/gallery"
QT5 = App(
    "qt5-gallery", ["qtbase5-examples"], QT_GALLERY, [QT_GALLERY],
    steps=[
        K("Tab", "Tab to a check box"),
        K("Tab", "Tab to a push button"),
        K("Tab", "Tab to a toggle button"),
        K("Tab", "Tab to a flat button"),
        K("Tab", "Tab to a tool button"),
        K("Tab", "Tab to the menu button"),
        K("space", "open its menu"),
        K("Down", "menu: next item"),
        K("Escape", "close the menu"),
        K("Tab", "Tab to the command link"),
        K("Tab", "Tab to a radio button"),
        K("Down", "next radio button"),
        K("Tab", "Tab onwards"),
        K("Tab", "Tab onwards"),
        K("Tab", "Tab onwards"),
        K("shift+Tab", "Shift+Tab back"),
        K("alt+s", "the style combo (Alt+S)"),
        K("shift+Tab", "Shift+Tab to Help"),
        K("shift+Tab", "Shift+Tab to Close"),
        K("shift+Tab", "Shift+Tab to the text edit"),
        K("shift+Tab", "Shift+Tab to the tool box"),
        K("shift+Tab", "Shift+Tab to the tree"),
        P("Right"),
        K("Down", "tree: next row"),
        K("Down", "tree: next row"),
        K("Up", "tree: previous row"),
        K("shift+Tab", "Shift+Tab to the tab bar"),
        K("Right", "next tab (Table)"),
        K("Right", "next tab (List)"),
        K("Left", "previous tab (Table)"),
        M(300, 200),
        K("Left", "moved: previous tab (Tree View)"),
        K("Tab", "Tab into the tree"),
    ])

# --- Firefox ESR on form.html: a fresh profile, no network at all ---
FIREFOX_PREFS = {
    # Quiet start: no first-run, default-browser, what's-new or session pages.
    "browser.shell.checkDefaultBrowser": False,
    "browser.startup.homepage_override.mstone": "ignore",
    "startup.homepage_welcome_url": "",
    "startup.homepage_welcome_url.additional": "",
    "browser.aboutwelcome.enabled": False,
    "browser.startup.page": 0,
    "browser.sessionstore.resume_from_crash": False,
    "browser.tabs.warnOnClose": False,
    "browser.warnOnQuit": False,
    "browser.uitour.enabled": False,
    "browser.newtabpage.enabled": False,
    "browser.translations.enable": False,
    "browser.ml.enable": False,
    "sidebar.revamp": False,
    "datareporting.policy.dataSubmissionEnabled": False,
    "datareporting.policy.firstRunURL": "",
    "toolkit.telemetry.reportingpolicy.firstRun": False,
    # Nothing that would reach out (the process has no network either: see argv).
    "datareporting.healthreport.uploadEnabled": False,
    "toolkit.telemetry.enabled": False,
    "app.update.auto": False,
    "app.normandy.enabled": False,
    "app.shield.optoutstudies.enabled": False,
    "extensions.update.enabled": False,
    "extensions.getAddons.cache.enabled": False,
    "browser.search.update": False,
    "browser.safebrowsing.malware.enabled": False,
    "browser.safebrowsing.phishing.enabled": False,
    "browser.safebrowsing.downloads.enabled": False,
    "network.captive-portal-service.enabled": False,
    "network.connectivity-service.enabled": False,
    "network.dns.disablePrefetch": True,
    "network.prefetch-next": False,
    "network.http.speculative-parallel-limit": 0,
    "network.proxy.type": 0,
    "network.trr.mode": 5,
    "dom.push.enabled": False,
    "media.gmp-manager.url": "",
    "media.gmp-provider.enabled": False,
    "browser.region.update.enabled": False,
    "identity.fxaccounts.enabled": False,
    "extensions.pocket.enabled": False,
    "messaging-system.rsexperimentloader.enabled": False,
    "geo.enabled": False,
    "signon.rememberSignons": False,
    "signon.generation.enabled": False,
    "signon.autofillForms": False,
    "browser.formfill.enable": False,
    # Accessibility on, whatever the desktop's settings say.
    "accessibility.force_disabled": -1,
}


def firefox_profile(work):
    prof = os.path.join(work, "firefox-profile")
    # Fresh each run: a profile left by an ended run would offer to restore its session.
    shutil.rmtree(prof, ignore_errors=True)
    os.makedirs(prof)
    with open(os.path.join(prof, "user.js"), "w") as f:
        for k, v in FIREFOX_PREFS.items():
            val = ("true" if v else "false") if isinstance(v, bool) else \
                (str(v) if isinstance(v, int) else '"' + v + '"')
            f.write(f'user_pref("{k}", {val});\n')


def firefox_argv():
    argv = ["firefox-esr", "-no-remote", "-new-instance", "-profile", "{work}/firefox-profile",
            "file://{here}/form.html"]
    # A network namespace of its own (loopback down): it cannot reach anything. X and the
    # buses are reached through socket files, which work from there.
    if os.geteuid() == 0 and shutil.which("unshare"):
        argv = ["unshare", "--net", "--"] + argv
    return argv


FIREFOX = App(
    "firefox-esr", ["firefox-esr"], "firefox-esr", firefox_argv(),
    env={"MOZ_CRASHREPORTER_DISABLE": "1", "MOZ_ACCESSIBILITY": "1"},
    start_bound=40.0, setup=firefox_profile,
    steps=[
        K("Tab", "Tab to the e-mail field"),
        K("Tab", "Tab to the password field"),
        K("Tab", "Tab to the country select"),
        K("Tab", "Tab to the check box"),
        K("Tab", "Tab to the radio button"),
        K("Right", "next radio button"),
        K("Tab", "Tab to the list box"),
        K("Down", "list: next option"),
        K("Down", "list: next option"),
        K("Up", "list: previous option"),
        K("Tab", "Tab to the text area"),
        K("Tab", "Tab to the dialog button"),
        K("Return", "open the modal dialog"),
        K("Tab", "dialog: Tab"),
        K("Tab", "dialog: Tab"),
        K("Escape", "close the dialog"),
        K("Tab", "Tab to Send"),
        K("Tab", "Tab to the button far below (scrolls)"),
        K("shift+Tab", "back up (scrolls)"),
        K("ctrl+l", "the address bar"),
        K("F6", "back to the page"),
        K("Tab", "Tab into the page"),
        K("alt+f", "File menu (Alt+F)"),
        K("Down", "File menu: next item"),
        K("Down", "File menu: next item"),
        K("Right", "Edit menu"),
        K("Down", "Edit menu: next item"),
        K("Escape", "close the menu"),
        M(260, 90),
        K("Escape", "leave the menu bar"),
    ])

# --- xfce4-terminal (no server: this process shows the window) ---
XFCE_TERMINAL = App(
    "xfce4-terminal", ["xfce4-terminal"], "xfce4-terminal",
    ["xfce4-terminal", "--disable-server", "--hide-toolbar"],
    steps=[
        K("F10", "F10: File menu"),
        K("Down", "File menu: next item"),
        K("Down", "File menu: next item"),
        K("Right", "Edit menu"),
        K("Down", "Edit menu: next item"),
        K("Right", "View menu"),
        K("Escape", "close the menus"),
        K("ctrl+shift+t", "new tab"),
        K("ctrl+Page_Up", "previous tab"),
        K("ctrl+Page_Down", "next tab"),
        K("alt+h", "Help menu (Alt+H)"),
        K("Down", "Help menu: About"),
        K("Return", "About dialog"),
        K("Tab", "dialog: Tab"),
        K("Tab", "dialog: Tab"),
        M(380, 300),
        K("shift+Tab", "dialog moved: Shift+Tab"),
        K("Escape", "close the dialog"),
        K("alt+e", "Edit menu (Alt+E)"),
        K("Up", "Edit menu: Preferences"),
        K("Return", "Preferences dialog"),
        K("Tab", "dialog: Tab"),
        K("Tab", "dialog: Tab"),
        K("Escape", "close the dialog"),
    ])

# --- Mousepad ---
MOUSEPAD = App(
    "mousepad", ["mousepad"], "mousepad", ["mousepad"],
    steps=[
        K("F10", "F10: File menu"),
        K("Down", "File menu: next item"),
        K("Right", "Edit menu"),
        K("Down", "Edit menu: next item"),
        K("Left", "back to the File menu"),
        K("Escape", "close the submenu"),
        K("Escape", "leave the menu bar"),
        K("ctrl+n", "new document tab"),
        K("ctrl+Page_Up", "previous tab"),
        K("ctrl+Page_Down", "next tab"),
        K("ctrl+f", "search bar"),
        K("Escape", "close the search bar"),
        K("alt+h", "Help menu (Alt+H)"),
        K("Down", "Help menu: next item"),
        K("Return", "About dialog"),
        K("Tab", "dialog: Tab"),
        M(380, 300),
        K("Tab", "dialog moved: Tab"),
        K("Escape", "close the dialog"),
        K("alt+e", "Edit menu (Alt+E)"),
        K("Up", "Edit menu: Preferences"),
        K("Return", "Preferences dialog"),
        K("Tab", "dialog: Tab"),
        K("ctrl+Page_Down", "dialog: next page"),
        K("Tab", "dialog: Tab"),
        K("Escape", "close the dialog"),
    ])

# --- The text cursor: each walk starts with the focus in a text field (or puts it there) ---

GTK3_CARET = GTK3.caret_walk([
    # The first combo box's entry has the focus at the start.
    P("ctrl+a"),
    C("BackSpace", "entry: emptied (select all, BackSpace)"),
    T("hello", "entry: typed, end of text"),
    C("Left", "entry: previous character"),
    C("Left", "entry: previous character"),
    C("Right", "entry: next character"),
    C("Home", "entry: Home"),
    C("Right", "entry: next character"),
    C("End", "entry: End"),
    C("shift+Left", "entry: select leftwards"),
    C("shift+Left", "entry: select leftwards"),
    C("shift+Right", "entry: shrink the selection"),
    C("Home", "entry: Home, no selection"),
    C("shift+Right", "entry: select rightwards"),
    C("shift+Right", "entry: select rightwards"),
    C("shift+Left", "entry: shrink the selection"),
    # Page 2's text view, as the focus walk reaches it.
    P("F10"), P("Right"), P("space"),
    P("Tab"), P("Tab"), P("Tab"), P("Tab"), P("Tab"), P("Tab"),
    P("ctrl+a"),
    C("BackSpace", "text view: emptied"),
    T("one", "text view: typed, end of text"),
    C("Return", "text view: Return, after the newline"),
    T("two", "text view: second line typed"),
    C("Up", "text view: line up"),
    C("Home", "text view: Home"),
    C("Right", "text view: next character"),
    C("End", "text view: End of the first line"),
    C("Down", "text view: line down"),
    C("shift+Left", "text view: select leftwards"),
    C("shift+Home", "text view: select to the line's start"),
    C("ctrl+End", "text view: end of text"),
    C("Return", "text view: Return at the end, after the newline"),
])

GTK4_CARET = GTK4.caret_walk([
    # GTK 4 announces no first focus: out of the first entry and back, so that it is announced.
    P("Tab"), P("shift+Tab"),
    C("End", "entry: End"),
    T("xy", "entry: typed, end of text"),
    C("Left", "entry: previous character"),
    C("Left", "entry: previous character"),
    C("Right", "entry: next character"),
    C("Home", "entry: Home"),
    C("End", "entry: End"),
])

QT5_CARET = QT5.caret_walk([
    # The line edit of "Simple Input Widgets" (a password field), back from the style combo.
    P("alt+s"),
    P("shift+Tab"), P("shift+Tab"), P("shift+Tab"), P("shift+Tab"), P("shift+Tab"),
    P("shift+Tab"), P("shift+Tab"),
    C("End", "line edit: End"),
    T("ab", "line edit: typed, end of text"),
    C("Left", "line edit: previous character"),
    C("Left", "line edit: previous character"),
    C("Right", "line edit: next character"),
    C("Home", "line edit: Home"),
    C("shift+Right", "line edit: select rightwards"),
    C("shift+Right", "line edit: select rightwards"),
    C("shift+Left", "line edit: shrink the selection"),
    C("End", "line edit: End, no selection"),
    C("shift+Left", "line edit: select leftwards"),
    C("shift+Home", "line edit: select to the start"),
    P("ctrl+a"),
    C("BackSpace", "line edit: emptied"),
    # Qt answers nothing about a password field's characters: the text edit of the tool box
    # gives its caret too.
    P("alt+s"), P("shift+Tab"), P("shift+Tab"), P("shift+Tab"),
    C("ctrl+End", "text edit: end of text"),
    T("ab", "text edit: typed"),
    C("Left", "text edit: previous character"),
    C("Home", "text edit: Home"),
    C("Right", "text edit: next character"),
    C("Up", "text edit: line up"),
    C("End", "text edit: End"),
    C("ctrl+End", "text edit: end of text"),
    C("Return", "text edit: Return, after the newline"),
    C("shift+Up", "text edit: select a line up"),
])

FIREFOX_CARET = FIREFOX.caret_walk([
    # The page starts with the focus in the name field ("Ada").
    C("End", "input: End, end of text"),
    T("x", "input: typed"),
    C("Left", "input: previous character"),
    C("Left", "input: previous character"),
    C("Right", "input: next character"),
    C("Home", "input: Home"),
    C("shift+Right", "input: select rightwards"),
    C("End", "input: End"),
    # The text area ("One", "Two"), seven stops further.
    P("Tab"), P("Tab"), P("Tab"), P("Tab"), P("Tab"), P("Tab"), P("Tab"),
    C("ctrl+End", "text area: end of text"),
    C("Left", "text area: previous character"),
    C("Home", "text area: Home, second line's start"),
    C("Up", "text area: line up"),
    C("End", "text area: End of the first line"),
    C("ctrl+End", "text area: end of text"),
    C("Return", "text area: Return, after the newline"),
    T("z", "text area: third line typed"),
    # The editable paragraph, four stops further (after the button far below).
    P("Tab"), P("Tab"), P("Tab"), P("Tab"),
    C("End", "paragraph: End, end of text"),
    T("s", "paragraph: typed"),
    C("Left", "paragraph: previous character"),
    C("Right", "paragraph: next character"),
    C("Home", "paragraph: Home"),
    C("Right", "paragraph: next character"),
    C("End", "paragraph: End"),
])

TERMINAL_CARET = XFCE_TERMINAL.caret_walk([
    # The terminal's caret is its cursor cell, after the shell's prompt (keys typed before the
    # shell reads them would be echoed raw: ^[[D for Left).
    W(r"[$#] *$", "the shell's prompt"),
    T("echo one", "prompt: typed"),
    C("Left", "prompt: previous character"),
    C("Left", "prompt: previous character"),
    C("Right", "prompt: next character"),
    C("Home", "prompt: Home"),
    C("Right", "prompt: next character"),
    C("End", "prompt: End"),
    C("BackSpace", "prompt: BackSpace"),
])

MOUSEPAD_CARET = MOUSEPAD.caret_walk(env={
    # Typing leaves an autosaved document and a session behind, which the next start offers to
    # restore (a dialog first): kept in memory and in the run's directory instead.
    "GSETTINGS_BACKEND": "memory", "XDG_DATA_HOME": "{work}/mousepad-caret-data"}, steps=[
    # A new document: the focus in its empty text view.
    T("first line", "typed, end of text"),
    C("Return", "Return, after the newline"),
    T("second", "second line typed"),
    C("Left", "previous character"),
    C("Left", "previous character"),
    C("Right", "next character"),
    C("Up", "line up"),
    C("Home", "Home"),
    C("Right", "next character"),
    C("End", "End of the first line"),
    C("Down", "line down"),
    C("Home", "Home of the second line"),
    C("ctrl+End", "end of text"),
    C("Return", "Return at the end, after the newline"),
    C("BackSpace", "BackSpace, end of text again"),
])

FOCUS_WALKS = [GTK3, GTK4, QT5, FIREFOX, XFCE_TERMINAL, MOUSEPAD]
CARET_WALKS = [GTK3_CARET, GTK4_CARET, QT5_CARET, FIREFOX_CARET, TERMINAL_CARET,
               MOUSEPAD_CARET]
APPS = FOCUS_WALKS + CARET_WALKS


def select(names):
    """Entries by name; the part of a name before its first '-' (gtk3, firefox, xfce4...) names
    both walks of that program, "focus" every focus walk and "caret" every caret walk."""
    if not names:
        return list(APPS)
    by = {a.name: [a] for a in APPS}
    by["focus"], by["caret"] = list(FOCUS_WALKS), list(CARET_WALKS)
    for a in APPS:
        by.setdefault(a.name.split("-")[0], []).append(a)
    out = []
    for n in names:
        if n not in by:
            return None
        for a in by[n]:
            if a not in out:
                out.append(a)
    return out
