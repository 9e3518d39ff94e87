#pragma once

// The simulated desktop's facilities besides accessibility: workspace, displays and pointer,
// speech, local message ports, user defaults and the agent's own process.

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Desktop.h"
#include "platform/MainLoop.h"

namespace orv::sim {

class SimDesktop;

class SimWorkspace : public Workspace {
  public:
    struct Launch {
        std::string path;
        std::vector<std::string> arguments;
    };

    explicit SimWorkspace(SimDesktop& desktop) : desk_(desktop) {}

    std::vector<RunningApplication> runningApplications() override;
    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<RunningApplication> runningApplicationWithProcessIdentifier(pid_t pid) override;
    std::vector<RunningApplication> runningApplicationsWithBundleIdentifier(
        const std::string& bundleIdentifier) override;
    bool launchApplication(const std::string& path, const std::vector<std::string>& arguments,
                           std::string* error) override;
    bool runSystemScript(const std::string& source, std::string* error) override;
    std::string pathForAuxiliaryExecutable(const std::string& name) override;

    // Every launch and script is recorded, failed ones included.
    const std::vector<Launch>& launches() const { return launches_; }
    const std::vector<std::string>& scripts() const { return scripts_; }
    // With a text, the next launches / scripts fail with it.
    void setLaunchFailure(std::optional<std::string> error) { launchError_ = std::move(error); }
    void setScriptFailure(std::optional<std::string> error) { scriptError_ = std::move(error); }
    void setAuxiliaryExecutable(const std::string& name, const std::string& path) {
        auxiliary_[name] = path;
    }

  private:
    SimDesktop& desk_;
    std::vector<Launch> launches_;
    std::vector<std::string> scripts_;
    std::optional<std::string> launchError_;
    std::optional<std::string> scriptError_;
    std::map<std::string, std::string> auxiliary_;
};

class SimDisplays : public Displays {
  public:
    struct Display {
        DisplayID id;
        Rect bounds;  // top-left-origin space, the main display at the origin
    };

    SimDisplays();

    DisplayID mainDisplayID() override;
    Rect displayBounds(DisplayID display) override;
    int32_t getDisplaysWithPoint(Point point, DisplayID* display, uint32_t* count) override;
    std::vector<Rect> screenFrames() override;
    Point mouseLocation() override;

    // Replaces the layout; the main display must be among them.
    void setDisplays(std::vector<Display> displays, DisplayID mainDisplay);
    // Adds a display beside the others; returns its id.
    DisplayID addDisplay(Rect bounds);
    const std::vector<Display>& displays() const { return displays_; }
    // A non-zero error makes getDisplaysWithPoint fail with it.
    void setPointLookupError(int32_t error) { lookupError_ = error; }
    // Bottom-left-origin, as mouseLocation answers. Safe from any thread.
    void setMouseLocation(Point location);
    // Same point given in the top-left-origin space of the accessibility interface.
    void setMouseLocationTopLeft(Point location);

  private:
    const Display* find(DisplayID id) const;
    double mainHeight() const;

    std::vector<Display> displays_;
    DisplayID main_ = 1;
    int32_t lookupError_ = 0;
    mutable std::mutex mouseMutex_;
    Point mouse_;
};

class SimSpeechEngine : public SpeechEngine {
  public:
    struct Utterance {
        std::string text;
        std::string voice;
        float rate = 0;
        float volume = 0;
        double start = 0;
        double end = -1;        // negative while speaking
        bool finished = false;  // ended on its own, not stopped
        int synthesizer = 0;    // which synthesizer spoke it, counting from 1
    };
    struct Log {
        std::vector<Utterance> utterances;
        int synthesizers = 0;
        bool failStart = false;
    };

    static constexpr float kDefaultRate = 180;
    // Seconds an utterance lasts: five characters make a word, at least one word.
    static double durationFor(const std::string& text, float wordsPerMinute);

    explicit SimSpeechEngine(SimDesktop& desktop);

    std::vector<std::string> availableVoices() override { return voices_; }
    std::string defaultVoice() override { return defaultVoice_; }
    std::unique_ptr<SpeechSynthesizer> createSynthesizer() override;

    void setVoices(std::vector<std::string> voices, std::string defaultVoice);
    const std::vector<Utterance>& utterances() const { return log_->utterances; }
    // Texts spoken so far, in order.
    std::vector<std::string> spokenTexts() const;
    int synthesizersCreated() const { return log_->synthesizers; }
    // Makes startSpeakingString answer false.
    void setFailStart(bool fail) { log_->failStart = fail; }
    void clear() { log_->utterances.clear(); }

  private:
    SimDesktop& desk_;
    std::vector<std::string> voices_;
    std::string defaultVoice_;
    std::shared_ptr<Log> log_;
};

class SimMessagePorts : public MessagePorts {
  public:
    // Error numbers of sendRequest.
    static constexpr int32_t kSendTimeout = -1;
    static constexpr int32_t kReceiveTimeout = -2;
    static constexpr int32_t kIsInvalid = -3;

    struct Registry;

    explicit SimMessagePorts(SimDesktop& desktop);

    std::shared_ptr<LocalMessagePort> createLocal(const std::string& name,
                                                  Handler handler) override;
    int32_t sendRequest(const std::string& name, int32_t msgid, const std::vector<uint8_t>& data,
                        double timeoutSeconds, std::vector<uint8_t>* reply) override;

    bool hasPort(const std::string& name) const;
    // The next creations fail.
    void setFailCreate(bool fail) { failCreate_ = fail; }
    size_t messagesDelivered() const;

  private:
    SimDesktop& desk_;
    std::shared_ptr<Registry> registry_;
    bool failCreate_ = false;
};

class SimUserDefaults : public UserDefaults {
  public:
    void registerDefaults(const std::map<std::string, std::string>& defaults) override;
    std::optional<std::string> stringForKey(const std::string& key) override;
    bool boolForKey(const std::string& key) override;
    void setString(const std::string& key, const std::string& value) override;
    void removeKey(const std::string& key) { values_.erase(key); }
    const std::map<std::string, std::string>& registered() const { return registered_; }

  private:
    std::map<std::string, std::string> registered_;
    std::map<std::string, std::string> values_;
};

class SimApplicationHost : public ApplicationHost {
  public:
    explicit SimApplicationHost(SimDesktop& desktop);

    std::vector<std::string> arguments() override { return arguments_; }
    OSVersion operatingSystemVersion() override { return version_; }
    std::string executablePath() override { return executablePath_; }
    void terminate() override;
    void hide() override { ++hides_; }

    void setArguments(std::vector<std::string> arguments) { arguments_ = std::move(arguments); }
    void setOperatingSystemVersion(OSVersion version) { version_ = version; }
    void setExecutablePath(std::string path) { executablePath_ = std::move(path); }
    // The agent's application comes to the front: fires didBecomeActive on the main loop.
    void activate();

    int terminateRequests() const { return terminateRequests_; }
    // Termination went through: shouldTerminate allowed it and the main loop was told to quit.
    bool terminated() const { return terminated_; }
    int terminationsRefused() const { return refused_; }
    int hides() const { return hides_; }

  private:
    SimDesktop& desk_;
    std::vector<std::string> arguments_;
    OSVersion version_{14, 0, 0};
    std::string executablePath_;
    int terminateRequests_ = 0;
    bool terminated_ = false;
    int refused_ = 0;
    int hides_ = 0;
};

}  // namespace orv::sim
