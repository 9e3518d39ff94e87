#pragma once

#include <memory>

#include "platform/Desktop.h"
#include "platform/linux/AtspiDesktop.h"

namespace orv::linuxdesk {

// Running applications are the accessible applications on the AT-SPI desktop; the front one is
// the last to activate a window. Main thread only.
class LinuxWorkspace final : public Workspace {
  public:
    explicit LinuxWorkspace(std::shared_ptr<AtspiDesktop> desktop);
    ~LinuxWorkspace() override;

    std::vector<RunningApplication> runningApplications() override;
    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<RunningApplication> runningApplicationWithProcessIdentifier(pid_t pid) override;
    std::vector<RunningApplication> runningApplicationsWithBundleIdentifier(
        const std::string& bundleIdentifier) override;
    bool launchApplication(const std::string& path, const std::vector<std::string>& arguments,
                           std::string* error) override;
    bool runSystemScript(const std::string& source, std::string* error) override;
    std::string pathForAuxiliaryExecutable(const std::string& name) override;

  private:
    std::shared_ptr<AtspiDesktop> desktop_;
    Signal<>::Connection launch_ = 0, terminate_ = 0, front_ = 0;
};

}  // namespace orv::linuxdesk
