#pragma once

// The rest of the seam besides accessibility elements: workspace, displays and pointer, speech,
// the local message port, user defaults and the process itself.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Common/Geometry.h"
#include "Common/Signal.h"

namespace orv {

struct RunningApplication {
    pid_t pid = 0;
    std::string bundleIdentifier;
    std::string localizedName;
    friend bool operator==(const RunningApplication&, const RunningApplication&) = default;
};

// Running applications and their comings and goings. Signals fire on the main loop.
class Workspace {
  public:
    virtual ~Workspace() = default;

    virtual std::vector<RunningApplication> runningApplications() = 0;
    virtual std::optional<RunningApplication> frontmostApplication() = 0;
    virtual std::optional<RunningApplication> runningApplicationWithProcessIdentifier(
        pid_t pid) = 0;
    virtual std::vector<RunningApplication> runningApplicationsWithBundleIdentifier(
        const std::string& bundleIdentifier) = 0;

    // Launch an auxiliary program with arguments; false with a reason on failure.
    virtual bool launchApplication(const std::string& path,
                                   const std::vector<std::string>& arguments,
                                   std::string* error) = 0;
    // Run a system automation script; false with the error text on failure.
    virtual bool runSystemScript(const std::string& source, std::string* error) = 0;
    // Path of an auxiliary executable shipped with the agent, empty when there is none.
    virtual std::string pathForAuxiliaryExecutable(const std::string& name) = 0;

    Signal<const RunningApplication&> didLaunchApplication;
    Signal<const RunningApplication&> didTerminateApplication;
    // The front application changed (pid of the new one).
    Signal<pid_t> frontApplicationSwitched;
};

// Display layout. Display bounds are in the accessibility interface's top-left-origin space
// (main display at the origin); screen frames are in the bottom-left-origin space of the agent.
class Displays {
  public:
    using DisplayID = uint32_t;
    virtual ~Displays() = default;

    virtual DisplayID mainDisplayID() = 0;
    virtual Rect displayBounds(DisplayID display) = 0;
    // The display holding a top-left-origin point; an error number (0 success) and the count found.
    virtual int32_t getDisplaysWithPoint(Point point, DisplayID* display, uint32_t* count) = 0;
    // Screen frames, bottom-left origin, in the platform's order (main screen first).
    virtual std::vector<Rect> screenFrames() = 0;
    // The pointer, bottom-left origin. Safe from any thread.
    virtual Point mouseLocation() = 0;
};

// One speaking voice engine instance. Calls on the main thread; the finish callback runs there.
class SpeechSynthesizer {
  public:
    virtual ~SpeechSynthesizer() = default;
    virtual bool setVoice(const std::string& voiceIdentifier) = 0;
    virtual std::string voice() const = 0;
    virtual void setRate(float wordsPerMinute) = 0;
    virtual float rate() const = 0;
    virtual void setVolume(float volume) = 0;  // 0..1
    virtual float volume() const = 0;
    // Asynchronous; returns false when speaking could not start.
    virtual bool startSpeakingString(const std::string& text) = 0;
    virtual void stopSpeaking() = 0;
    virtual bool isSpeaking() const = 0;
    // Called with true when the utterance ended normally, false when it was stopped.
    virtual void setDidFinishSpeaking(std::function<void(bool finished)> callback) = 0;
};

class SpeechEngine {
  public:
    virtual ~SpeechEngine() = default;
    virtual std::vector<std::string> availableVoices() = 0;
    virtual std::string defaultVoice() = 0;
    virtual std::unique_ptr<SpeechSynthesizer> createSynthesizer() = 0;
};

// A named local request-reply channel carrying whole messages.
class LocalMessagePort {
  public:
    virtual ~LocalMessagePort() = default;
    virtual void invalidate() = 0;
    virtual bool isValid() const = 0;
};

class MessagePorts {
  public:
    // Message id and bytes in, reply bytes out. Runs on the main loop.
    using Handler =
        std::function<std::vector<uint8_t>(int32_t msgid, const std::vector<uint8_t>& data)>;
    virtual ~MessagePorts() = default;
    // Null when the name is taken or the port could not be made.
    virtual std::shared_ptr<LocalMessagePort> createLocal(const std::string& name,
                                                          Handler handler) = 0;
    // Client side: sends one message and waits for the reply. 0 on success, else an error number.
    virtual int32_t sendRequest(const std::string& name, int32_t msgid,
                                const std::vector<uint8_t>& data, double timeoutSeconds,
                                std::vector<uint8_t>* reply) = 0;
};

// Per-user key-value store with registered defaults.
class UserDefaults {
  public:
    virtual ~UserDefaults() = default;
    virtual void registerDefaults(const std::map<std::string, std::string>& defaults) = 0;
    virtual std::optional<std::string> stringForKey(const std::string& key) = 0;
    // "YES", "yes", "true", "1" and non-zero numbers read as true; a missing key as false.
    virtual bool boolForKey(const std::string& key) = 0;
    virtual void setString(const std::string& key, const std::string& value) = 0;
};

struct OSVersion {
    int major = 0;
    int minor = 0;
    int patch = 0;
};

// The agent's own process as the platform's application object sees it.
class ApplicationHost {
  public:
    virtual ~ApplicationHost() = default;
    virtual std::vector<std::string> arguments() = 0;
    virtual OSVersion operatingSystemVersion() = 0;
    virtual std::string executablePath() = 0;
    // Orderly end: on the main loop, asks the should-terminate handler, then stops the main loop.
    virtual void terminate() = 0;
    // The agent never stays in front.
    virtual void hide() = 0;

    // True only on systems whose trust is granted by an enabling script and a helper application
    // rather than a prompt (old macOS). Elsewhere start-up just checks that access is granted.
    bool legacyTrustPath = false;

    // Answers whether termination may go on now; the agent's delegate installs it.
    std::function<bool()> shouldTerminate;
    // Fired when the agent's application becomes active.
    Signal<> didBecomeActive;
};

}  // namespace orv
