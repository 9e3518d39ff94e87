"""The applications and the keys that drive each: every "key" step is one focus change measured;
"press" steps set something up and are not measured; "move" steps move the active window (the
area must follow). Windows start moved to (150, 110)."""

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


class App:
    def __init__(self, name, packages, program, argv, steps, env=None, start_bound=20.0,
                 setup=None):
        self.name = name
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

APPS = [GTK3, GTK4, QT5, FIREFOX, XFCE_TERMINAL, MOUSEPAD]


def select(names):
    if not names:
        return list(APPS)
    by = {a.name: a for a in APPS}
    short = {a.name.split("-")[0]: a for a in APPS}
    out = []
    for n in names:
        a = by.get(n) or short.get(n)
        if a is None:
            return None
        out.append(a)
    return out
