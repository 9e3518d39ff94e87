// Switching the desktop's accessibility on, as screen readers do: some toolkits (Chromium and
// the applications built on it, among others) build their accessible tree only once the session
// says an assistive technology runs.

#include "platform/linux/AccessibilityStatus.h"

#include <gio/gio.h>

#include "Common/OrvLogger.h"

namespace orv::linuxdesk {

namespace {

constexpr const char* kBusName = "org.a11y.Bus";
constexpr const char* kBusPath = "/org/a11y/bus";
constexpr const char* kStatus = "org.a11y.Status";
constexpr int kCallTimeoutMs = 1000;

std::optional<bool> readIsEnabled(GDBusConnection* session, std::string* why) {
    GError* err = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        session, kBusName, kBusPath, "org.freedesktop.DBus.Properties", "Get",
        g_variant_new("(ss)", kStatus, "IsEnabled"), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr, &err);
    if (!reply) {
        if (why) *why = err ? err->message : "no reply";
        if (err) g_error_free(err);
        return std::nullopt;
    }
    GVariant* boxed = nullptr;
    g_variant_get(reply, "(v)", &boxed);
    std::optional<bool> on;
    if (boxed && g_variant_is_of_type(boxed, G_VARIANT_TYPE_BOOLEAN))
        on = g_variant_get_boolean(boxed);
    else if (why)
        *why = "IsEnabled is not a boolean";
    if (boxed) g_variant_unref(boxed);
    g_variant_unref(reply);
    return on;
}

}  // namespace

std::optional<bool> switchOnAccessibility(std::string* why) {
    GError* err = nullptr;
    GDBusConnection* session = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &err);
    if (!session) {
        if (why) *why = err ? err->message : "no session bus";
        if (err) g_error_free(err);
        return std::nullopt;
    }
    std::optional<bool> was = readIsEnabled(session, why);
    if (was && !*was) {
        GVariant* reply = g_dbus_connection_call_sync(
            session, kBusName, kBusPath, "org.freedesktop.DBus.Properties", "Set",
            g_variant_new("(ssv)", kStatus, "IsEnabled", g_variant_new_boolean(TRUE)), nullptr,
            G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr, &err);
        if (reply) {
            g_variant_unref(reply);
        } else {
            if (why) *why = err ? err->message : "no reply";
            if (err) g_error_free(err);
            was.reset();
        }
    }
    g_object_unref(session);
    return was;
}

void switchOnAccessibilityAndLog() {
    std::string why;
    const std::optional<bool> was = switchOnAccessibility(&why);
    if (!was)
        OrvLogger::addWarningMessageWithFormat(
            "Cannot switch accessibility on for the session (org.a11y.Status IsEnabled): %@", why);
    else if (*was)
        OrvLogger::addInfoMessage(
            "Accessibility is on for the session (org.a11y.Status IsEnabled)");
    else
        OrvLogger::addInfoMessage(
            "Switched accessibility on for the session (org.a11y.Status IsEnabled was false)");
}

}  // namespace orv::linuxdesk
