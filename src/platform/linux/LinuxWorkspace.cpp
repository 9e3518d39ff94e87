#include "platform/linux/LinuxWorkspace.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>

extern char** environ;

namespace orv::linuxdesk {

LinuxWorkspace::LinuxWorkspace(std::shared_ptr<AtspiDesktop> desktop)
    : desktop_(std::move(desktop)) {
    launch_ = desktop_->didLaunchApplication.connect(
        [this](const RunningApplication& app) { didLaunchApplication.emit(app); });
    terminate_ = desktop_->didTerminateApplication.connect(
        [this](const RunningApplication& app) { didTerminateApplication.emit(app); });
    front_ = desktop_->frontApplicationSwitched.connect(
        [this](pid_t pid) { frontApplicationSwitched.emit(pid); });
}

LinuxWorkspace::~LinuxWorkspace() {
    desktop_->didLaunchApplication.disconnect(launch_);
    desktop_->didTerminateApplication.disconnect(terminate_);
    desktop_->frontApplicationSwitched.disconnect(front_);
}

std::vector<RunningApplication> LinuxWorkspace::runningApplications() {
    std::vector<RunningApplication> out;
    for (AppInfo* app : desktop_->applications())
        if (app->pid > 0) out.push_back(desktop_->runningApplication(*app));
    return out;
}

std::optional<RunningApplication> LinuxWorkspace::frontmostApplication() {
    AppInfo* app = desktop_->frontmostApp();
    if (!app) return std::nullopt;
    return desktop_->runningApplication(*app);
}

std::optional<RunningApplication> LinuxWorkspace::runningApplicationWithProcessIdentifier(
    pid_t pid) {
    AppInfo* app = desktop_->appForPid(pid);
    if (!app) return std::nullopt;
    return desktop_->runningApplication(*app);
}

std::vector<RunningApplication> LinuxWorkspace::runningApplicationsWithBundleIdentifier(
    const std::string& bundleIdentifier) {
    std::vector<RunningApplication> out;
    for (const auto& app : runningApplications())
        if (app.bundleIdentifier == bundleIdentifier) out.push_back(app);
    return out;
}

bool LinuxWorkspace::launchApplication(const std::string& path,
                                       const std::vector<std::string>& arguments,
                                       std::string* error) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    // Its own process group: it outlives us and ignores our terminal's signals.
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, 0);
    const int rc = posix_spawn(&pid, path.c_str(), nullptr, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        if (error) *error = std::string("cannot launch ") + path + ": " + std::strerror(rc);
        return false;
    }
    return true;
}

bool LinuxWorkspace::runSystemScript(const std::string&, std::string* error) {
    if (error) *error = "system scripts are not supported on this desktop";
    return false;
}

std::string LinuxWorkspace::pathForAuxiliaryExecutable(const std::string& name) {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0 || name.empty()) return {};
    buf[n] = 0;
    std::string dir(buf);
    dir.erase(dir.rfind('/') + 1);
    const std::string path = dir + name;
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !(st.st_mode & S_IXUSR)) return {};
    return path;
}

}  // namespace orv::linuxdesk
