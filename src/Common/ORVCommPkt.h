#pragma once

// One packet of the magnifier link: a UTF-8 text datagram of ":"-separated fields. Requests are
// "<id>:<code>[:payload...]", replies "+<id>[:key:value...]".

#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Common/GCDAsyncUdpSocket.h"

namespace orv {

class ORVCommunicationHub;

// Key-value pairs of a reply in the order their keys first appeared; setting a key again
// replaces its value in place. Replies are a handful of pairs, so lookups are linear.
class ORVCommDictionary {
  public:
    using Entry = std::pair<std::string, std::string>;

    ORVCommDictionary() = default;
    ORVCommDictionary(std::initializer_list<Entry> entries);

    void set(std::string key, std::string value);
    const std::string* find(std::string_view key) const;
    bool contains(std::string_view key) const { return find(key) != nullptr; }
    void remove(std::string_view key);

    size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    void reserve(size_t n) { entries_.reserve(n); }
    std::vector<Entry>::const_iterator begin() const { return entries_.begin(); }
    std::vector<Entry>::const_iterator end() const { return entries_.end(); }

    // "{key = value; ...}"
    std::string description() const;
    friend bool operator==(const ORVCommDictionary&, const ORVCommDictionary&) = default;

  private:
    std::vector<Entry> entries_;
};

using ORVCommFields = std::vector<std::string>;
using ORVCommBytes = std::vector<uint8_t>;

class ORVCommPkt;
using ORVCommPktRef = std::shared_ptr<ORVCommPkt>;

class ORVCommPkt : public std::enable_shared_from_this<ORVCommPkt> {
  public:
    static constexpr const char* kClassName = "ORVCommPkt";

    virtual ~ORVCommPkt() = default;
    ORVCommPkt(const ORVCommPkt&) = delete;
    ORVCommPkt& operator=(const ORVCommPkt&) = delete;

    // ---- class-level values -------------------------------------------------------------------

    // The next request identifier, "ORVCommReq%08lu" from a process-wide counter.
    static std::string signature();
    // Tests start the counter over; the program never does.
    static void resetSignatureCounter(unsigned long next = 0);

    static ORVCommDictionary dictionaryFromReplyComponents(const ORVCommFields& fields);
    static std::string stringFromReplyDictionary(const ORVCommDictionary& dictionary);

    // The request code of the kind; the bare base has none and asserts "Invalid usage".
    virtual int32_t requestCode() const;
    virtual double timeoutInterval() const { return 5.0; }
    virtual const char* className() const { return kClassName; }

    // ---- fields, each read and written whole under the packet's lock --------------------------

    ORVCommBytes request() const;
    void setRequest(ORVCommBytes request);
    bool hasRequest() const;
    int32_t opCode() const;
    std::string requestId() const;
    void setRequestId(std::string requestId);
    SocketAddress remoteAddress() const;
    void setRemoteAddress(SocketAddress address);

    // The hub a received request came in on; its reply leaves through the same socket.
    std::shared_ptr<ORVCommunicationHub> receivingHub() const;
    void setReceivingHub(std::weak_ptr<ORVCommunicationHub> hub);

    // ---- behaviour ----------------------------------------------------------------------------

    // Takes a fresh signature as requestId and fills request.
    virtual void encode();
    // Through the shared hub; nothing happens when there is none.
    void dispatch();
    // The reply goes to remoteAddress through the receiving hub (or the shared one).
    void dispatchReply(const ORVCommDictionary& dictionary);
    // Main loop, when no reply came within timeoutInterval.
    virtual void dispatchTimeout();
    // All fields of a received request. The bare base asserts "Invalid usage".
    virtual void processRequest(const ORVCommFields& fields);
    virtual void processReply(const ORVCommDictionary& dictionary);
    // Reads a received request's payload fields into the kind's typed fields; missing or
    // unreadable fields read as zero or empty. Kinds without payload ignore it.
    virtual void decodePayload(const ORVCommFields& fields);

    // Per-packet completions for whoever sent it (tools, tests). A reply handler marks the reply
    // as handled; kinds with their own reply handling call it after theirs.
    using ReplyHandler = std::function<void(ORVCommPkt&, const ORVCommDictionary&)>;
    using TimeoutHandler = std::function<void(ORVCommPkt&)>;
    void setReplyHandler(ReplyHandler handler);
    void setTimeoutHandler(TimeoutHandler handler);

    // "<ORVCommFocusArea: 0x... requestId:ORVCommReq00000001 opCode:4120012>"
    std::string description() const;

  protected:
    ORVCommPkt() = default;
    explicit ORVCommPkt(int32_t opCode) : opCode_(opCode) {}

    // For kinds with a payload: "<fresh id>:<code>:" followed by the payload text.
    void encodeWithPayload(std::string_view payload);
    void storeEncoded(std::string requestId, const char* bytes, size_t length);
    ReplyHandler replyHandler() const;

  private:
    mutable std::mutex mutex_;
    ORVCommBytes request_;
    int32_t opCode_ = 0;
    std::string requestId_;
    SocketAddress remoteAddress_;
    std::weak_ptr<ORVCommunicationHub> receivingHub_;
    ReplyHandler replyHandler_;
    TimeoutHandler timeoutHandler_;
};

// A request kind: fixes the code and the class name, and accepts a received request without
// doing anything unless the kind says otherwise.
template <typename Derived, int32_t Code>
class ORVCommPktKind : public ORVCommPkt {
  public:
    static constexpr int32_t kRequestCode = Code;

    ORVCommPktKind() : ORVCommPkt(Code) {}

    static std::shared_ptr<Derived> create() { return std::make_shared<Derived>(); }
    // A received request: sender's address, the datagram and the identifier it carried.
    static std::shared_ptr<Derived> newFrom(SocketAddress address, ORVCommBytes request,
                                            std::string reqid) {
        auto p = std::make_shared<Derived>();
        p->setRemoteAddress(std::move(address));
        p->setRequest(std::move(request));
        p->setRequestId(std::move(reqid));
        return p;
    }

    int32_t requestCode() const override { return Code; }
    const char* className() const override { return Derived::kClassName; }
    void processRequest(const ORVCommFields&) override {}
};

// ---- text helpers shared by the kinds, the hub and the tools ----------------------------------

// Read as the platform reads a number from text: leading blanks, a sign, then digits up to the
// first non-digit; saturates at the 32-bit limits; text that is not a number reads as 0.
int32_t orvCommIntValue(std::string_view text);
// Leading blanks, then a decimal floating-point number; 0 when there is none.
double orvCommDoubleValue(std::string_view text);
// Fixed-point with the given decimals, as "%0.<decimals>f" in the C locale.
std::string orvCommFixed(double value, int decimals);

std::string orvBase64Encode(std::string_view bytes);
// Strict: padding required, no characters outside the alphabet. Empty on failure.
std::optional<std::string> orvBase64Decode(std::string_view text);

bool orvCommIsValidUtf8(const uint8_t* data, size_t length);
// Splits at every ":"; n colons give n + 1 fields.
ORVCommFields orvCommSplitFields(std::string_view text);

}  // namespace orv
