#pragma once

// The accessibility interface's vocabulary: element references, error numbers, the one value type
// that attribute reads return, and the exception a platform may raise while answering.

#include <sys/types.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Common/Geometry.h"

namespace orv {

// Error numbers of the accessibility interface (0 is success).
enum AXError : int32_t {
    kAXErrorSuccess = 0,
    kAXErrorFailure = -25200,
    kAXErrorIllegalArgument = -25201,
    kAXErrorInvalidUIElement = -25202,
    kAXErrorInvalidUIElementObserver = -25203,
    kAXErrorCannotComplete = -25204,
    kAXErrorAttributeUnsupported = -25205,
    kAXErrorActionUnsupported = -25206,
    kAXErrorNotificationUnsupported = -25207,
    kAXErrorNotImplemented = -25208,
    kAXErrorNotificationAlreadyRegistered = -25209,
    kAXErrorNotificationNotRegistered = -25210,
    kAXErrorAPIDisabled = -25211,
    kAXErrorNoValue = -25212,
    kAXErrorParameterizedAttributeUnsupported = -25213,
    kAXErrorNotEnoughPrecision = -25214,
};

// One element of some application's accessibility tree, as the backend knows it. References are
// shared (the platform's retain and release); two references may name the same element, which
// `equals` decides (the platform's value equality), while the pointers stay distinct.
class AXUIElement {
  public:
    virtual ~AXUIElement() = default;
    virtual bool equals(const AXUIElement& other) const = 0;
    // Consistent with equals, for the backends' and tests' own maps.
    virtual size_t hash() const = 0;
    // Short text for logs.
    virtual std::string debugDescription() const = 0;
};
using AXUIElementRef = std::shared_ptr<const AXUIElement>;

inline bool axEqual(const AXUIElementRef& a, const AXUIElementRef& b) {
    if (a == b) return true;
    if (!a || !b) return false;
    return a->equals(*b);
}

struct AXElementRefHash {
    size_t operator()(const AXUIElementRef& r) const { return r ? r->hash() : 0; }
};
struct AXElementRefEqual {
    bool operator()(const AXUIElementRef& a, const AXUIElementRef& b) const {
        return axEqual(a, b);
    }
};

// Opaque positions in web content. Backends put whatever identifies the position in the bytes;
// equal bytes mean the same marker.
struct AXTextMarker {
    std::string bytes;
    friend bool operator==(const AXTextMarker&, const AXTextMarker&) = default;
};
struct AXTextMarkerRange {
    std::string bytes;
    friend bool operator==(const AXTextMarkerRange&, const AXTextMarkerRange&) = default;
};

// The platform takes the two ends of a marker range from the value itself, without asking the
// application. A range therefore carries its ends in a form every backend shares: the start
// marker's length in decimal, ":", the start's bytes, then the end's bytes.
AXTextMarkerRange makeTextMarkerRange(const AXTextMarker& start, const AXTextMarker& end);
// nullopt for bytes not made by makeTextMarkerRange.
std::optional<AXTextMarker> textMarkerRangeStart(const AXTextMarkerRange& range);
std::optional<AXTextMarker> textMarkerRangeEnd(const AXTextMarkerRange& range);

struct AXURL {
    std::string url;
    friend bool operator==(const AXURL&, const AXURL&) = default;
};

class AXValue;
using AXArray = std::vector<AXValue>;

// The value of an attribute. Types are those the platform boxes: none, boolean, integer, double,
// string, point, size, rectangle, range, element, array, URL, text marker and marker range.
class AXValue {
  public:
    enum class Type : unsigned long {
        None = 0,
        Boolean,
        Integer,
        Double,
        String,
        Point,
        Size,
        Rect,
        Range,
        Element,
        Array,
        URL,
        TextMarker,
        TextMarkerRange,
    };
    using Storage =
        std::variant<std::monostate, bool, int64_t, double, std::string, Point, Size, Rect, Range,
                     AXUIElementRef, AXArray, AXURL, AXTextMarker, AXTextMarkerRange>;

    AXValue() = default;
    AXValue(bool v) : v_(v) {}
    AXValue(int v) : v_(int64_t(v)) {}
    AXValue(long v) : v_(int64_t(v)) {}
    AXValue(long long v) : v_(int64_t(v)) {}
    AXValue(double v) : v_(v) {}
    AXValue(const char* v) : v_(std::string(v)) {}
    AXValue(std::string v) : v_(std::move(v)) {}
    AXValue(Point v) : v_(v) {}
    AXValue(Size v) : v_(v) {}
    AXValue(Rect v) : v_(v) {}
    AXValue(Range v) : v_(v) {}
    AXValue(AXUIElementRef v) : v_(std::move(v)) {}
    AXValue(AXArray v) : v_(std::move(v)) {}
    AXValue(AXURL v) : v_(std::move(v)) {}
    AXValue(AXTextMarker v) : v_(std::move(v)) {}
    AXValue(AXTextMarkerRange v) : v_(std::move(v)) {}

    Type type() const { return static_cast<Type>(v_.index()); }
    // The type's number, as logged when a value has an unexpected type.
    unsigned long typeID() const { return static_cast<unsigned long>(v_.index()); }
    bool isNone() const { return v_.index() == 0; }

    template <typename T>
    bool is() const {
        return std::holds_alternative<T>(v_);
    }
    template <typename T>
    const T* get() const {
        return std::get_if<T>(&v_);
    }

    const Storage& storage() const { return v_; }

    // Text of any value for logs and for string reads that do not check the type.
    std::string description() const;

    friend bool operator==(const AXValue& a, const AXValue& b);

  private:
    Storage v_;
};

// Raised by a backend where the platform raises (some applications do so while building arrays).
// The element layer catches it exactly where it is expected and nowhere else.
class PlatformException : public std::exception {
  public:
    PlatformException(std::string name, std::string reason, std::vector<std::string> callStack = {})
        : name_(std::move(name)), reason_(std::move(reason)), callStack_(std::move(callStack)) {}
    const char* what() const noexcept override { return reason_.c_str(); }
    const std::string& name() const { return name_; }
    const std::string& reason() const { return reason_; }
    // Empty where the backend has no call stack to offer.
    const std::vector<std::string>& callStack() const { return callStack_; }

  private:
    std::string name_;
    std::string reason_;
    std::vector<std::string> callStack_;
};

}  // namespace orv
