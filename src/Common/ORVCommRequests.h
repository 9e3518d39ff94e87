#pragma once

// The request kinds of the magnifier link, one class per code, and the table that maps a
// received code to its kind. A kind's payload fields are set before it is dispatched and filled
// by decodePayload when it is received; the packet's own fields are the locked ones.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Geometry.h"
#include "Common/ORVCommPkt.h"
#include "accessibility/element/ORVOrientedRect.h"

namespace orv {

// A status subscriber on the magnifier's side of the link.
struct ORVCommunicationClient {
    std::string host;
    uint16_t port = 0;
    friend bool operator==(const ORVCommunicationClient&, const ORVCommunicationClient&) = default;
};

// What the agent does with the status and command requests it receives. The status monitor and
// the magnifier commands fill these in; while a hook is empty its kind is accepted and nothing
// else happens. Main loop only.
struct ORVCommAgentHooks {
    // A status subscription was answered with "status" "OK".
    std::function<void(bool confirmed)> statusSubscriptionConfirmed;
    // The whole reply to a status inquiry.
    std::function<void(const ORVCommDictionary& status)> statusReceived;
    // A status-changed request with its key, old value and new value.
    std::function<void(const std::string& key, const std::string& oldValue,
                       const std::string& newValue)>
        statusChanged;
    // A shutdown request from the magnifier.
    std::function<void()> shutdown;

    static ORVCommAgentHooks& shared();
};

#define ORV_COMM_PLAIN_KIND(Name, Code)                    \
    class Name final : public ORVCommPktKind<Name, Code> { \
      public:                                              \
        static constexpr const char* kClassName = #Name;   \
    }

ORV_COMM_PLAIN_KIND(ORVCommEnableMagnifier, 4120000);
ORV_COMM_PLAIN_KIND(ORVCommDisableMagnifier, 4120001);
ORV_COMM_PLAIN_KIND(ORVCommToggleMagnifier, 4120002);
ORV_COMM_PLAIN_KIND(ORVCommIncreaseMagnification, 4120004);
ORV_COMM_PLAIN_KIND(ORVCommDecreaseMagnification, 4120005);
ORV_COMM_PLAIN_KIND(ORVCommEnableFullscreen, 4120006);
// Shares its code with enable: the receiving side cannot tell them apart (kept as deployed).
ORV_COMM_PLAIN_KIND(ORVCommDisableFullscreen, 4120006);
ORV_COMM_PLAIN_KIND(ORVCommToggleFullscreen, 4120008);
ORV_COMM_PLAIN_KIND(ORVCommToggleColorScheme, 4120016);
ORV_COMM_PLAIN_KIND(ORVCommKeepAlive, 4120017);
ORV_COMM_PLAIN_KIND(ORVCommOpenPreferences, 4120018);
ORV_COMM_PLAIN_KIND(ORVCommEnableFontSmoothingToggle, 4120019);
ORV_COMM_PLAIN_KIND(ORVCommOpenLensResizer, 4120022);
ORV_COMM_PLAIN_KIND(ORVCommStartLensResize, 4120027);
ORV_COMM_PLAIN_KIND(ORVCommToggleSpeech, 4120034);
ORV_COMM_PLAIN_KIND(ORVCommOpenReaderWindow, 4120035);
ORV_COMM_PLAIN_KIND(ORVCommReadFromBrowser, 4120036);
ORV_COMM_PLAIN_KIND(ORVCommReadFromClipboard, 4120037);
ORV_COMM_PLAIN_KIND(ORVCommReadFromSelection, 4120038);
ORV_COMM_PLAIN_KIND(ORVCommReadFromWindow, 4120039);
ORV_COMM_PLAIN_KIND(ORVCommReadFromCamera, 4120040);
ORV_COMM_PLAIN_KIND(ORVCommReadFromFile, 4120041);

#undef ORV_COMM_PLAIN_KIND

class ORVCommShutdown final : public ORVCommPktKind<ORVCommShutdown, 4120011> {
  public:
    static constexpr const char* kClassName = "ORVCommShutdown";
    void processRequest(const ORVCommFields& fields) override;
};

class ORVCommSetMagnification final : public ORVCommPktKind<ORVCommSetMagnification, 4120003> {
  public:
    static constexpr const char* kClassName = "ORVCommSetMagnification";
    static std::shared_ptr<ORVCommSetMagnification> create(double magnification);
    using ORVCommPktKind::create;

    double magnification = 0;

    void encode() override;
    void decodePayload(const ORVCommFields& fields) override;
};

// The datagram the agent sends most: the focus rectangle, rounded to whole points.
class ORVCommFocusArea final : public ORVCommPktKind<ORVCommFocusArea, 4120012> {
  public:
    static constexpr const char* kClassName = "ORVCommFocusArea";
    static std::shared_ptr<ORVCommFocusArea> create(ORVOrientedRectRef area);
    using ORVCommPktKind::create;

    // Null sends all fields as 0.
    ORVOrientedRectRef area;

    void encode() override;
    void decodePayload(const ORVCommFields& fields) override;

    // Rounds halves away from zero and clamps to the 32-bit range; not-a-number gives 0.
    static int32_t wireCoordinate(double v);
};

class ORVCommStatusSubscription final : public ORVCommPktKind<ORVCommStatusSubscription, 4120020> {
  public:
    static constexpr const char* kClassName = "ORVCommStatusSubscription";
    void processReply(const ORVCommDictionary& dictionary) override;
};

class ORVCommStatusInquiry final : public ORVCommPktKind<ORVCommStatusInquiry, 4120024> {
  public:
    static constexpr const char* kClassName = "ORVCommStatusInquiry";
    void processReply(const ORVCommDictionary& dictionary) override;
};

class ORVCommStatusChanged final : public ORVCommPktKind<ORVCommStatusChanged, 4120021> {
  public:
    static constexpr const char* kClassName = "ORVCommStatusChanged";
    static std::shared_ptr<ORVCommStatusChanged> create(std::string key, std::string oldValue,
                                                        std::string currentValue);
    using ORVCommPktKind::create;

    std::string key, oldValue, currentValue;
    // Who the magnifier's side sends it to.
    std::vector<ORVCommunicationClient> subscribers;

    void encode() override;
    void decodePayload(const ORVCommFields& fields) override;
    void processRequest(const ORVCommFields& fields) override;
};

class ORVCommSetStatus final : public ORVCommPktKind<ORVCommSetStatus, 4120025> {
  public:
    static constexpr const char* kClassName = "ORVCommSetStatus";
    static std::shared_ptr<ORVCommSetStatus> create(ORVCommDictionary values);
    using ORVCommPktKind::create;

    ORVCommDictionary values;

    void encode() override;
    void decodePayload(const ORVCommFields& fields) override;
};

class ORVCommLiveLensResize final : public ORVCommPktKind<ORVCommLiveLensResize, 4120028> {
  public:
    static constexpr const char* kClassName = "ORVCommLiveLensResize";
    static std::shared_ptr<ORVCommLiveLensResize> create(const Rect& lensRect);
    using ORVCommPktKind::create;

    Rect lensRect;

    void encode() override;
    void decodePayload(const ORVCommFields& fields) override;
};

class ORVCommFinalizeLensResize final : public ORVCommPktKind<ORVCommFinalizeLensResize, 4120029> {
  public:
    static constexpr const char* kClassName = "ORVCommFinalizeLensResize";
    static std::shared_ptr<ORVCommFinalizeLensResize> create(bool applyChanges);
    using ORVCommPktKind::create;

    bool applyChanges = false;

    void encode() override;
    void decodePayload(const ORVCommFields& fields) override;
};

class ORVCommShowAlert final : public ORVCommPktKind<ORVCommShowAlert, 4120033> {
  public:
    static constexpr const char* kClassName = "ORVCommShowAlert";
    static std::shared_ptr<ORVCommShowAlert> create(std::optional<std::string> alertText);
    using ORVCommPktKind::create;

    // Empty optional: no text, sent as "". A received field that is not Base64 reads as no text.
    std::optional<std::string> alertText;

    void encode() override;
    void decodePayload(const ORVCommFields& fields) override;
};

// The one table of request codes, in the order of the protocol's list.
struct ORVCommKindInfo {
    const char* name;
    int32_t code;
    ORVCommPktRef (*create)();
    ORVCommPktRef (*newFrom)(SocketAddress address, ORVCommBytes request, std::string reqid);
};

class ORVCommKinds {
  public:
    static constexpr int32_t kFirstCode = 4120000;
    static constexpr int32_t kLastCode = 4120041;

    static const std::vector<ORVCommKindInfo>& all();
    // The kind a received code maps to; 4120006 maps to enable fullscreen. Null when the code
    // is not in the table.
    static const ORVCommKindInfo* forCode(int32_t code);
    // By class name, with or without the "ORVComm" prefix, ignoring case.
    static const ORVCommKindInfo* forName(std::string_view name);
};

}  // namespace orv
