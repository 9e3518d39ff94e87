#include "platform/posix/PosixServices.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace orv::posix {

PosixApplicationHost::PosixApplicationHost(std::shared_ptr<MainLoop> loop,
                                           std::vector<std::string> arguments)
    : loop_(loop), arguments_(std::move(arguments)) {}

OSVersion PosixApplicationHost::operatingSystemVersion() {
    OSVersion v;
    utsname u{};
    if (::uname(&u) == 0) std::sscanf(u.release, "%d.%d.%d", &v.major, &v.minor, &v.patch);
    return v;
}

std::string PosixApplicationHost::executablePath() {
    std::error_code ec;
    auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? (arguments_.empty() ? std::string() : arguments_[0]) : p.string();
}

void PosixApplicationHost::terminate() {
    auto loop = loop_.lock();
    if (!loop) return;
    loop->post([this, weak = loop_] {
        if (shouldTerminate && !shouldTerminate()) return;
        if (auto l = weak.lock()) l->quit();
    });
}

std::string FileUserDefaults::defaultPath() {
    std::string base;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = std::string(home) + "/.config";
    else
        return {};
    return base + "/ocuvane/defaults.conf";
}

FileUserDefaults::FileUserDefaults(std::string path) : path_(std::move(path)) {
    if (path_.empty()) return;
    std::ifstream in(path_);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        values_[line.substr(0, eq)] = line.substr(eq + 1);
    }
}

void FileUserDefaults::registerDefaults(const std::map<std::string, std::string>& defaults) {
    std::lock_guard lock(mutex_);
    for (auto& [k, v] : defaults) registered_[k] = v;
}

std::optional<std::string> FileUserDefaults::stringForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    if (auto it = values_.find(key); it != values_.end()) return it->second;
    if (auto it = registered_.find(key); it != registered_.end()) return it->second;
    return std::nullopt;
}

bool FileUserDefaults::boolForKey(const std::string& key) {
    auto v = stringForKey(key);
    return v && textIsTrue(*v);
}

void FileUserDefaults::setString(const std::string& key, const std::string& value) {
    std::lock_guard lock(mutex_);
    values_[key] = value;
    save();
}

void FileUserDefaults::save() {
    if (path_.empty()) return;
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
    std::ofstream out(path_, std::ios::trunc);
    for (auto& [k, v] : values_) out << k << '=' << v << '\n';
}

bool textIsTrue(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n')) ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    while (i < text.size() && text[i] == '0') ++i;
    if (i >= text.size()) return false;
    const char c = text[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

}  // namespace orv::posix
