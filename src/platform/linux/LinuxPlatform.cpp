#include "platform/linux/LinuxPlatform.h"

#include <X11/Xlib.h>
#include <atspi/atspi.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>

#include "platform/glib/GLibMainLoop.h"
#include "platform/linux/AccessibilityStatus.h"
#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/LinuxWorkspace.h"
#include "platform/linux/X11Displays.h"

namespace orv::linuxdesk {

namespace detail {

bool accessibilityBusConfigured(std::string* whyNot) {
    auto set = [](const char* name) {
        const char* v = std::getenv(name);
        return v && *v;
    };
    if (set("AT_SPI_BUS_ADDRESS") || set("DBUS_SESSION_BUS_ADDRESS")) return true;
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
        struct stat st {};
        const std::string bus = std::string(runtime) + "/bus";
        if (stat(bus.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
    }
    if (whyNot)
        *whyNot =
            "no accessibility bus: neither AT_SPI_BUS_ADDRESS nor DBUS_SESSION_BUS_ADDRESS is set "
            "and there is no session bus socket in XDG_RUNTIME_DIR";
    return false;
}

}  // namespace detail

namespace {

// libatspi keeps one connection per process; a failed start cannot be retried.
enum class InitState { NotTried, Ok, Failed };
InitState g_init = InitState::NotTried;

// The loop runs through libatspi's own entry so that its cache and its quick failure on hung
// applications are in force.
std::atomic<bool> g_running{false};

void runAtspiLoop() {
    g_running = true;
    atspi_event_main();
    g_running = false;
}

gboolean quitOnMain(gpointer) {
    if (g_running) atspi_event_quit();
    return G_SOURCE_REMOVE;
}

void quitAtspiLoop() {
    g_main_context_invoke(nullptr, quitOnMain, nullptr);
}

}  // namespace

std::shared_ptr<Platform> makeLinuxPlatform(std::string* whyNot) {
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) {
        if (whyNot) *whyNot = "no X display: DISPLAY is not set (a Wayland session needs XWayland)";
        return nullptr;
    }
    if (!detail::accessibilityBusConfigured(whyNot)) return nullptr;
    Display* dpy = XOpenDisplay(nullptr);
    if (!dpy) {
        if (whyNot) *whyNot = std::string("cannot open the X display ") + display;
        return nullptr;
    }
    if (g_init == InitState::NotTried) {
        const int rc = atspi_init();
        g_init = (rc == 0 || rc == 1) ? InitState::Ok : InitState::Failed;
    }
    if (g_init != InitState::Ok) {
        XCloseDisplay(dpy);
        if (whyNot)
            *whyNot = "the accessibility bus cannot be reached (is at-spi-bus-launcher running?)";
        return nullptr;
    }

    setElementOwnerThread();
    auto loop = std::make_shared<GLibMainLoop>(runAtspiLoop, quitAtspiLoop);
    auto desktop = std::make_shared<AtspiDesktop>(loop);
    if (!desktop->start(whyNot)) {
        XCloseDisplay(dpy);
        return nullptr;
    }
    switchOnAccessibilityAndLog();
    auto displays = X11Displays::create(dpy, *loop);
    if (!displays) {
        if (whyNot) *whyNot = "cannot read the X display layout";
        return nullptr;
    }
    std::weak_ptr<X11Displays> weakDisplays = displays;
    std::weak_ptr<AtspiDesktop> weakDesktop = desktop;
    desktop->setScreenOrigin(displays->mainOrigin());
    desktop->monitorRects = [weakDisplays] {
        auto d = weakDisplays.lock();
        return d ? d->monitorRects() : std::vector<Rect>{};
    };
    displays->onLayoutChanged = [weakDisplays, weakDesktop] {
        auto d = weakDisplays.lock();
        auto a = weakDesktop.lock();
        if (d && a) a->setScreenOrigin(d->mainOrigin());
    };
    displays->onFocusedWindowMoved = [weakDesktop] {
        if (auto a = weakDesktop.lock()) a->focusedWindowMoved();
    };

    auto p = std::make_shared<Platform>();
    p->name = "linux";
    p->loop = loop;
    auto ax = std::make_shared<AtspiAccessibility>(desktop);
    // Kept window and container extents are forgotten when a top-level window changes.
    ax->setTopLevelGeneration([weakDisplays] {
        auto d = weakDisplays.lock();
        return d ? d->topLevelGeneration() : ~uint64_t{0};
    });
    // GTK 4 answers extents relative to its windows; the X server knows where they are.
    ax->surfacesOf = [weakDisplays](pid_t pid) {
        auto d = weakDisplays.lock();
        return d ? d->surfacesOf(pid) : std::vector<XSurface>{};
    };
    p->ax = ax;
    p->workspace = std::make_shared<LinuxWorkspace>(desktop);
    p->displays = displays;
    return p;
}

std::shared_ptr<AtspiDesktop> atspiDesktopOf(const Platform& platform) {
    auto* ax = dynamic_cast<AtspiAccessibility*>(platform.ax.get());
    return ax ? ax->sharedDesktop() : nullptr;
}

}  // namespace orv::linuxdesk
