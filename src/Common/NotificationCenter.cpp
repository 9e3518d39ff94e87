#include "Common/NotificationCenter.h"

#include <algorithm>

namespace orv {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::addObserver(const std::string& name,
                                                          const void* object, Callback callback) {
    std::lock_guard lock(mutex_);
    Token t = next_++;
    entries_.push_back(Entry{t, name, object, std::move(callback)});
    return t;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [&](const Entry& e) { return e.token == token; });
}

void NotificationCenter::removeAll() {
    std::lock_guard lock(mutex_);
    entries_.clear();
}

void NotificationCenter::post(const Notification& n) {
    std::vector<Callback> targets;
    {
        std::lock_guard lock(mutex_);
        for (auto& e : entries_)
            if (e.name == n.name && (!e.object || e.object == n.object))
                targets.push_back(e.callback);
    }
    for (auto& cb : targets) cb(n);
}

size_t NotificationCenter::observerCount(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(),
                                             [&](const Entry& e) { return e.name == name; }));
}

}  // namespace orv
