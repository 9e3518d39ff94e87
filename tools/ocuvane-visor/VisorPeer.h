#pragma once

// The magnifier's side of the link, for people who build or debug a magnifier and for end-to-end
// tests: answers the agent's status requests, prints what it receives, and sends what it is told.

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "Common/ORVCommRequests.h"
#include "Common/ORVCommunicationHub.h"

namespace orv::visor {

struct VisorOptions {
    uint16_t port = ORVCommunicationHub::kServerPort;
    bool json = false;
    // The answer to a status inquiry, in this order.
    ORVCommDictionary settings;
};

// The settings keys the agent reads from the magnifier.
const std::vector<std::string>& knownSettingsKeys();

// Reads "key=value" lines ('#' starts a comment, blank lines are skipped) into the settings.
// False with a message naming the line when one is malformed.
bool readSettingsFile(const std::string& path, ORVCommDictionary* settings, std::string* error);
// One "key=value"; false with a message when it cannot travel (no key, or a ":" anywhere).
bool parseSetting(const std::string& text, ORVCommDictionary* settings, std::string* error);

class VisorPeer {
  public:
    enum class CommandResult { Ok, Error, Quit };

    // Lines about received requests go to `out`, diagnostics to `err`. `now` gives wall-clock
    // seconds since the epoch for the receive times.
    VisorPeer(VisorOptions options, std::ostream& out, std::ostream& err,
              std::function<double()> now);

    // Takes over the hub's received requests.
    void attach(const std::shared_ptr<ORVCommunicationHub>& hub);
    void handleRequest(const ORVCommPktRef& packet, const ORVCommFields& fields);
    // One line of standard input.
    CommandResult execute(const std::string& line);

    static std::string helpText();
    const std::vector<ORVCommunicationClient>& subscribers() const { return subscribers_; }
    const ORVCommDictionary& settings() const { return options_.settings; }

  private:
    CommandResult send(const std::vector<std::string>& words, const std::string& rest);
    bool sendToAgent(const ORVCommPktRef& packet);
    void printRequest(const ORVCommPktRef& packet, const ORVCommFields& fields, double time);
    std::string fromText(const ORVCommPktRef& packet) const;
    CommandResult fail(const std::string& message);

    VisorOptions options_;
    std::ostream& out_;
    std::ostream& err_;
    std::function<double()> now_;
    std::weak_ptr<ORVCommunicationHub> hub_;
    std::vector<ORVCommunicationClient> subscribers_;
    bool agentKnown_ = false;
};

}  // namespace orv::visor
