#pragma once

// AT-SPI roles and states as the agent's role vocabulary ("AXButton", "AXTextField", ...).
// docs/linux-backend.md carries the same table for readers.

#include <cstdint>

namespace orv::linuxdesk {

// The states that decide between roles of one AT-SPI role.
enum RoleStateHint : uint32_t {
    kHintNone = 0,
    kHintMultiLine = 1,
    kHintEditable = 2,
};

struct AXRoleNames {
    const char* role;     // never null
    const char* subrole;  // null when the role has none
};

// `atspiRole` is an AtspiRole number; unknown numbers give "AXUnknown".
AXRoleNames axRoleFor(int atspiRole, uint32_t hints);

// Roles whose element is a top-level window of its application.
bool isWindowRole(int atspiRole);
// Roles whose text content is the element's value ("AXValue" reads the Text interface).
bool isTextRole(int atspiRole);
// Roles whose checked state is the element's value (0 or 1).
bool isToggleRole(int atspiRole);
// Roles whose numeric value comes from the Value interface.
bool isRangeRole(int atspiRole);
// Labels: their name is their value, not their title.
bool isStaticTextRole(int atspiRole);

}  // namespace orv::linuxdesk
