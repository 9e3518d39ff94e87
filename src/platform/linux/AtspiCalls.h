#pragma once

// Small owners for what libatspi hands back, shared by the files of the accessibility calls.

#include <atspi/atspi.h>

#include <string>

namespace orv::linuxdesk::detail {

constexpr int kMaxDepth = 200;

// Owns a GError for the length of one call.
struct Err {
    GError* e = nullptr;
    ~Err() {
        if (e) g_error_free(e);
    }
    GError** operator&() { return &e; }
};

// Owns a g_malloc'd string.
struct GStr {
    gchar* s = nullptr;
    ~GStr() { g_free(s); }
    std::string str() const { return s ? s : ""; }
};

template <typename T>
struct GRef {
    T* p = nullptr;
    explicit GRef(T* x) : p(x) {}
    ~GRef() {
        if (p) g_object_unref(p);
    }
    GRef(const GRef&) = delete;
    GRef& operator=(const GRef&) = delete;
    explicit operator bool() const { return p != nullptr; }
};

inline bool appGone(AtspiAccessible* acc) {
    AtspiObject* obj = ATSPI_OBJECT(acc);
    return !obj->app || !obj->app->bus;
}

// States, or null when they could not be read.
inline AtspiStateSet* statesOf(AtspiAccessible* acc) {
    return atspi_accessible_get_state_set(acc);
}

}  // namespace orv::linuxdesk::detail

// libatspi is not thread-safe: a call from another thread runs on the main loop and waits.
#define ORV_ON_MAIN(call)                                           \
    do {                                                            \
        if (!desktop_->loop().isMainThread()) {                     \
            AXError hopped = kAXErrorCannotComplete;                \
            desktop_->loop().postAndWait([&] { hopped = (call); }); \
            return hopped;                                          \
        }                                                           \
    } while (0)
