#pragma once

// Process-level facilities for real desktops on POSIX systems: the agent's own process, and user
// defaults kept in a per-user file.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Desktop.h"
#include "platform/MainLoop.h"

namespace orv::posix {

class PosixApplicationHost : public ApplicationHost {
  public:
    PosixApplicationHost(std::shared_ptr<MainLoop> loop, std::vector<std::string> arguments);

    std::vector<std::string> arguments() override { return arguments_; }
    // The kernel release, e.g. 6.1.
    OSVersion operatingSystemVersion() override;
    std::string executablePath() override;
    // On the main loop: asks shouldTerminate, then quits the loop.
    void terminate() override;
    // The agent has no window of its own here; nothing to hide.
    void hide() override {}

  private:
    std::weak_ptr<MainLoop> loop_;
    std::vector<std::string> arguments_;
};

// "key=value" lines in $XDG_CONFIG_HOME/ocuvane/defaults.conf (or ~/.config/...): read once at
// construction, written back on set. Registered defaults answer for keys the file lacks.
class FileUserDefaults : public UserDefaults {
  public:
    explicit FileUserDefaults(std::string path = defaultPath());
    static std::string defaultPath();

    void registerDefaults(const std::map<std::string, std::string>& defaults) override;
    std::optional<std::string> stringForKey(const std::string& key) override;
    bool boolForKey(const std::string& key) override;
    void setString(const std::string& key, const std::string& value) override;

  private:
    void save();
    std::string path_;
    std::mutex mutex_;
    std::map<std::string, std::string> values_;
    std::map<std::string, std::string> registered_;
};

// The platform's way of reading a boolean from text: after leading blanks, a sign and zeros, true
// when it begins with Y, y, T, t or a digit 1 to 9.
bool textIsTrue(const std::string& text);

}  // namespace orv::posix
