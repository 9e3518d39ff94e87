#include "platform/linux/LinuxWorkspace.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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
    if (access(path.c_str(), X_OK) != 0) {
        if (error) *error = "cannot launch " + path + ": " + std::strerror(errno);
        return false;
    }
    // A shell that starts the program in the background and ends at once: the program is not our
    // child, so nothing is left to reap, and it outlives us.
    std::vector<std::string> args{"/bin/sh", "-c", "\"$0\" \"$@\" </dev/null >/dev/null 2>&1 &",
                                  path};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv.data(), environ);
    if (rc != 0) {
        if (error) *error = "cannot launch " + path + ": " + std::strerror(rc);
        return false;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        if (error) *error = "cannot launch " + path;
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
