#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "platform/AXTypes.h"

typedef struct _AtspiAccessible AtspiAccessible;

namespace orv::linuxdesk {

// The object path of every application's root object.
inline constexpr const char* kRootPath = "/org/a11y/atspi/accessible/root";

// One AT-SPI object as an element of the seam. Identity is the object's bus name and path, copied
// at creation: libatspi disposes objects of vanished applications, after which the wrapper must
// still compare and describe itself.
class AtspiElement final : public AXUIElement {
  public:
    enum class Kind {
        SystemWide,
        // The application's root object.
        Application,
        Object,
        // An application element for a process that has no accessible application.
        Missing,
        // The characters an object of a web page holds itself: pages keep their text in the
        // objects that lay it out, where the agent expects static text elements.
        TextRun,
    };

    // Takes a new reference on `acc`.
    static std::shared_ptr<const AtspiElement> make(AtspiAccessible* acc);
    // Adopts the caller's reference.
    static std::shared_ptr<const AtspiElement> adopt(AtspiAccessible* acc);
    static std::shared_ptr<const AtspiElement> systemWide();
    static std::shared_ptr<const AtspiElement> missing(pid_t pid);
    // The text run of `acc` (a new reference is taken).
    static std::shared_ptr<const AtspiElement> textRunOf(AtspiAccessible* acc);

    ~AtspiElement() override;
    AtspiElement(const AtspiElement&) = delete;
    AtspiElement& operator=(const AtspiElement&) = delete;

    bool equals(const AXUIElement& other) const override;
    size_t hash() const override { return hash_; }
    std::string debugDescription() const override;

    Kind kind() const { return kind_; }
    // Null for the system-wide and missing kinds.
    AtspiAccessible* accessible() const { return acc_; }
    const std::string& busName() const { return bus_; }
    const std::string& path() const { return path_; }
    pid_t missingPid() const { return missingPid_; }

    // Same object as `acc` (by identity, not by pointer).
    bool isSame(const std::string& bus, const std::string& path) const {
        return bus == bus_ && path == path_;
    }

  private:
    AtspiElement(Kind kind, AtspiAccessible* acc, std::string bus, std::string path, pid_t pid);

    Kind kind_;
    AtspiAccessible* acc_;
    std::string bus_;
    std::string path_;
    pid_t missingPid_;
    size_t hash_;
};

using AtspiElementRef = std::shared_ptr<const AtspiElement>;

// The wrapper behind a seam reference, or null for a reference of another backend.
const AtspiElement* asAtspi(const AXUIElementRef& ref);

// The thread that runs libatspi; elements dropped elsewhere release their object there.
void setElementOwnerThread();

// Identity of a live object: bus name and path (empty strings for a disposed object).
std::string busNameOf(AtspiAccessible* acc);
std::string pathOf(AtspiAccessible* acc);

}  // namespace orv::linuxdesk
