#include "VisorPeer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <fstream>
#include <sstream>

namespace orv::visor {

namespace {

std::vector<std::string> splitWords(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

std::string trim(const std::string& s) {
    const auto b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return {};
    const auto e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

// The text after the first `count` words of the line, trimmed.
std::string restAfterWords(const std::string& line, size_t count) {
    size_t i = 0;
    for (size_t w = 0; w < count; ++w) {
        i = line.find_first_not_of(" \t", i);
        if (i == std::string::npos) return {};
        i = line.find_first_of(" \t", i);
        if (i == std::string::npos) return {};
    }
    return trim(line.substr(i));
}

bool parseNumber(const std::string& text, double* out) {
    const char* b = text.data();
    const char* e = b + text.size();
    if (b != e && *b == '+') ++b;
    auto res = std::from_chars(b, e, *out);
    return res.ec == std::errc() && res.ptr == e && std::isfinite(*out);
}

bool parseNumbers(const std::vector<std::string>& words, size_t from, std::vector<double>* out) {
    for (size_t i = from; i < words.size(); ++i) {
        double v;
        if (!parseNumber(words[i], &v)) return false;
        out->push_back(v);
    }
    return true;
}

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

std::string localTime(double t) {
    const std::time_t secs = static_cast<std::time_t>(std::floor(t));
    const int ms = static_cast<int>((t - std::floor(t)) * 1000.0);
    std::tm tm{};
    localtime_r(&secs, &tm);
    char buf[40];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    char full[48];
    std::snprintf(full, sizeof full, "%s.%03d", buf, ms);
    return full;
}

bool travels(const std::string& field) {
    return field.find(':') == std::string::npos;
}

}  // namespace

const std::vector<std::string>& knownSettingsKeys() {
    static const std::vector<std::string> keys = {
        "echoVoice",      "echoRate",         "echoVolume",         "focusEchoEnabled",
        "focusEchoStyle", "mouseEchoEnabled", "mouseEchoCondition", "magnificationEnabled",
        "speechEnabled",  "keyMods"};
    return keys;
}

bool parseSetting(const std::string& text, ORVCommDictionary* settings, std::string* error) {
    const auto eq = text.find('=');
    const std::string key = trim(text.substr(0, eq));
    if (eq == std::string::npos || key.empty()) {
        *error = "expected key=value, got '" + text + "'";
        return false;
    }
    const std::string value = trim(text.substr(eq + 1));
    if (!travels(key) || !travels(value)) {
        *error = "'" + text + "': a ':' cannot travel inside a field";
        return false;
    }
    settings->set(key, value);
    return true;
}

bool readSettingsFile(const std::string& path, ORVCommDictionary* settings, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read " + path;
        return false;
    }
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        const std::string t = trim(line);
        if (t.empty() || t[0] == '#') continue;
        std::string why;
        if (!parseSetting(t, settings, &why)) {
            *error = path + ":" + std::to_string(number) + ": " + why;
            return false;
        }
    }
    return true;
}

VisorPeer::VisorPeer(VisorOptions options, std::ostream& out, std::ostream& err,
                     std::function<double()> now)
    : options_(std::move(options)), out_(out), err_(err), now_(std::move(now)) {}

void VisorPeer::attach(const std::shared_ptr<ORVCommunicationHub>& hub) {
    hub_ = hub;
    hub->setRequestObserver(
        [this](const ORVCommPktRef& p, const ORVCommFields& f) { handleRequest(p, f); });
}

std::string VisorPeer::fromText(const ORVCommPktRef& packet) const {
    std::string host;
    uint16_t port = 0;
    if (!GCDAsyncUdpSocket::getHost(&host, &port, packet->remoteAddress())) return "?";
    return host + ":" + std::to_string(port);
}

void VisorPeer::handleRequest(const ORVCommPktRef& packet, const ORVCommFields& fields) {
    const double time = now_();
    auto hub = hub_.lock();
    if (!hub) return;
    const int32_t code = packet->opCode();
    // The agent announces itself with its first datagram, and again when it subscribes after a
    // restart (a new process has a new port).
    if (!agentKnown_ || code == ORVCommStatusSubscription::kRequestCode) {
        hub->setUIEndpoint(packet->remoteAddress());
        agentKnown_ = true;
    }
    printRequest(packet, fields, time);
    if (code == ORVCommStatusSubscription::kRequestCode) {
        std::string host;
        uint16_t port = 0;
        if (GCDAsyncUdpSocket::getHost(&host, &port, packet->remoteAddress())) {
            ORVCommunicationClient client{host, port};
            if (std::find(subscribers_.begin(), subscribers_.end(), client) == subscribers_.end())
                subscribers_.push_back(client);
        }
        packet->dispatchReply({{"status", "OK"}});
    } else if (code == ORVCommStatusInquiry::kRequestCode) {
        packet->dispatchReply(options_.settings);
    }
}

void VisorPeer::printRequest(const ORVCommPktRef& packet, const ORVCommFields& fields,
                             double time) {
    std::ostringstream line;
    if (auto focus = std::dynamic_pointer_cast<ORVCommFocusArea>(packet)) {
        const Rect& r = focus->area->rect();
        const auto x = static_cast<int32_t>(r.origin.x), y = static_cast<int32_t>(r.origin.y);
        const auto w = static_cast<int32_t>(r.size.width), h = static_cast<int32_t>(r.size.height);
        const auto ex = static_cast<int32_t>(focus->area->edgeX());
        const auto ey = static_cast<int32_t>(focus->area->edgeY());
        const auto src = static_cast<int32_t>(focus->area->source());
        if (options_.json) {
            line << "{\"type\":\"focusArea\",\"requestId\":" << jsonString(packet->requestId())
                 << ",\"x\":" << x << ",\"y\":" << y << ",\"width\":" << w << ",\"height\":" << h
                 << ",\"edgeX\":" << ex << ",\"edgeY\":" << ey << ",\"source\":" << src
                 << ",\"from\":" << jsonString(fromText(packet))
                 << ",\"time\":" << orvCommFixed(time, 3) << "}";
        } else {
            line << localTime(time) << " focus " << packet->requestId() << " x=" << x << " y=" << y
                 << " width=" << w << " height=" << h << " edge=(" << ex << "," << ey
                 << ") source=" << src;
        }
    } else {
        if (options_.json) {
            line << "{\"type\":\"request\",\"kind\":" << jsonString(packet->className())
                 << ",\"code\":" << packet->opCode()
                 << ",\"requestId\":" << jsonString(packet->requestId()) << ",\"payload\":[";
            for (size_t i = 2; i < fields.size(); ++i)
                line << (i > 2 ? "," : "") << jsonString(fields[i]);
            line << "],\"from\":" << jsonString(fromText(packet))
                 << ",\"time\":" << orvCommFixed(time, 3) << "}";
        } else {
            line << localTime(time) << " request " << packet->className() << " "
                 << packet->requestId() << " from " << fromText(packet);
            for (size_t i = 2; i < fields.size(); ++i)
                line << (i == 2 ? " payload " : ":") << fields[i];
        }
    }
    out_ << line.str() << std::endl;
}

VisorPeer::CommandResult VisorPeer::fail(const std::string& message) {
    err_ << "ocuvane-visor: " << message << std::endl;
    return CommandResult::Error;
}

bool VisorPeer::sendToAgent(const ORVCommPktRef& packet) {
    auto hub = hub_.lock();
    if (!hub || hub->uiHost().empty()) {
        fail("no agent yet: nothing has been received, so there is nowhere to send to");
        return false;
    }
    hub->dispatch(packet);
    err_ << "ocuvane-visor: sent " << packet->className() << " " << packet->requestId() << " to "
         << hub->uiHost() << ":" << hub->uiPort() << std::endl;
    return true;
}

VisorPeer::CommandResult VisorPeer::execute(const std::string& line) {
    const std::vector<std::string> words = splitWords(line);
    if (words.empty() || words[0][0] == '#') return CommandResult::Ok;
    const std::string& cmd = words[0];

    if (cmd == "help") {
        out_ << helpText() << std::flush;
        return CommandResult::Ok;
    }
    if (cmd == "quit" || cmd == "exit") return CommandResult::Quit;
    if (cmd == "status") {
        if (words.size() < 3) return fail("usage: status KEY VALUE");
        const std::string& key = words[1];
        const std::string value = restAfterWords(line, 2);
        if (!travels(key) || !travels(value)) return fail("a ':' cannot travel inside a field");
        const std::string* old = options_.settings.find(key);
        auto packet = ORVCommStatusChanged::create(key, old ? *old : std::string(), value);
        options_.settings.set(key, value);
        packet->subscribers = subscribers_;
        if (auto hub = hub_.lock()) hub->dispatchBroadcast(packet, packet->subscribers);
        err_ << "ocuvane-visor: status " << key << " = " << value << " sent to "
             << subscribers_.size() << " subscriber(s)" << std::endl;
        return CommandResult::Ok;
    }
    if (cmd == "shutdown" || cmd == "keepalive") {
        if (words.size() != 1) return fail("usage: " + cmd + " (no arguments)");
        ORVCommPktRef packet;
        if (cmd == "shutdown")
            packet = ORVCommShutdown::create();
        else
            packet = ORVCommKeepAlive::create();
        return sendToAgent(packet) ? CommandResult::Ok : CommandResult::Error;
    }
    if (cmd == "send") {
        if (words.size() < 2) return fail("usage: send KIND [PAYLOAD...] ('help' lists the kinds)");
        return send(words, restAfterWords(line, 2));
    }
    if (cmd == "subscribers") {
        for (const auto& c : subscribers_)
            err_ << "ocuvane-visor: subscriber " << c.host << ":" << c.port << "\n";
        err_ << "ocuvane-visor: " << subscribers_.size() << " subscriber(s)" << std::endl;
        return CommandResult::Ok;
    }
    return fail("unknown command '" + cmd + "' (try 'help')");
}

VisorPeer::CommandResult VisorPeer::send(const std::vector<std::string>& words,
                                         const std::string& rest) {
    const ORVCommKindInfo* kind = ORVCommKinds::forName(words[1]);
    if (!kind) return fail("unknown request kind '" + words[1] + "' (try 'help')");
    ORVCommPktRef packet = kind->create();
    const size_t args = words.size() - 2;
    std::vector<double> numbers;
    auto usage = [&](const char* payload) {
        return fail(std::string("usage: send ") + kind->name + " " + payload);
    };

    switch (kind->code) {
        case ORVCommSetMagnification::kRequestCode:
            if (args != 1 || !parseNumbers(words, 2, &numbers)) return usage("FACTOR");
            std::static_pointer_cast<ORVCommSetMagnification>(packet)->magnification = numbers[0];
            break;
        case ORVCommFocusArea::kRequestCode: {
            if ((args != 4 && args != 7) || !parseNumbers(words, 2, &numbers))
                return usage("X Y WIDTH HEIGHT [EDGEX EDGEY SOURCE]");
            uint32_t codes[3] = {0, 0, 0};
            for (size_t i = 4; i < numbers.size(); ++i)
                codes[i - 4] = static_cast<uint32_t>(ORVCommFocusArea::wireCoordinate(numbers[i]));
            std::static_pointer_cast<ORVCommFocusArea>(packet)->area =
                ORVOrientedRect::initWithRect(Rect(numbers[0], numbers[1], numbers[2], numbers[3]),
                                              codes[0], codes[1], codes[2]);
            break;
        }
        case ORVCommStatusChanged::kRequestCode: {
            if (args != 3) return usage("KEY OLD NEW");
            auto p = std::static_pointer_cast<ORVCommStatusChanged>(packet);
            p->key = words[2];
            p->oldValue = words[3];
            p->currentValue = words[4];
            if (!travels(p->key) || !travels(p->oldValue) || !travels(p->currentValue))
                return fail("a ':' cannot travel inside a field");
            break;
        }
        case ORVCommSetStatus::kRequestCode: {
            auto p = std::static_pointer_cast<ORVCommSetStatus>(packet);
            for (size_t i = 2; i < words.size(); ++i) {
                std::string why;
                if (!parseSetting(words[i], &p->values, &why)) return fail(why);
            }
            break;
        }
        case ORVCommLiveLensResize::kRequestCode:
            if (args != 4 || !parseNumbers(words, 2, &numbers)) return usage("X Y WIDTH HEIGHT");
            std::static_pointer_cast<ORVCommLiveLensResize>(packet)->lensRect =
                Rect(numbers[0], numbers[1], numbers[2], numbers[3]);
            break;
        case ORVCommFinalizeLensResize::kRequestCode:
            if (args != 1 || (words[2] != "0" && words[2] != "1")) return usage("0|1");
            std::static_pointer_cast<ORVCommFinalizeLensResize>(packet)->applyChanges =
                words[2] == "1";
            break;
        case ORVCommShowAlert::kRequestCode:
            // Base64 on the wire, so the text may hold anything, ":" included.
            if (!rest.empty()) std::static_pointer_cast<ORVCommShowAlert>(packet)->alertText = rest;
            break;
        default:
            if (args != 0) return fail(std::string(kind->name) + " takes no payload");
    }
    return sendToAgent(packet) ? CommandResult::Ok : CommandResult::Error;
}

std::string VisorPeer::helpText() {
    std::string kinds = "  ";
    size_t column = 2;
    for (const auto& k : ORVCommKinds::all()) {
        const std::string name = std::string(k.name).substr(7);  // without "ORVComm"
        if (column + 1 + name.size() > 78) {
            kinds += "\n  ";
            column = 2;
        }
        kinds += " " + name;
        column += 1 + name.size();
    }
    return "Commands (one per line on standard input):\n"
           "  status KEY VALUE    store a setting and push the change to every subscriber\n"
           "  shutdown            send a shutdown request to the agent\n"
           "  keepalive           send a keep-alive request to the agent\n"
           "  send KIND [ARGS]    send any request kind to the agent; payloads:\n"
           "                        SetMagnification FACTOR\n"
           "                        FocusArea X Y WIDTH HEIGHT [EDGEX EDGEY SOURCE]\n"
           "                        StatusChanged KEY OLD NEW\n"
           "                        SetStatus [KEY=VALUE...]\n"
           "                        LiveLensResize X Y WIDTH HEIGHT\n"
           "                        FinalizeLensResize 0|1\n"
           "                        ShowAlert [TEXT...]\n"
           "                      the other kinds take none\n"
           "  subscribers         list the status subscribers (on standard error)\n"
           "  help                this list\n"
           "  quit                stop (so does the end of input)\n"
           "Kinds (the \"ORVComm\" prefix may be left out, case does not matter):\n" +
           kinds + "\n";
}

}  // namespace orv::visor
