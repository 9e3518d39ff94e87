#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "Common/Format.h"
#include "Common/OrvLogger.h"
#include "platform/Platform.h"

namespace orv {

// A set whose writers never wait: a writer that finds the lock taken posts the same operation to
// the main loop and returns, so its effect may land a turn later. Readers wait for the lock.
// The set and its lock are made with the object (every instance works, not just the first).
// Owned through shared_ptr so that a posted retry keeps the set alive.
template <typename T, typename Hash = std::hash<T>>
class MFThreadSafeSet : public std::enable_shared_from_this<MFThreadSafeSet<T, Hash>> {
  public:
    using Action = std::function<void(const T& object, const std::shared_ptr<void>& context)>;
    using Predicate = std::function<bool(const T& object)>;

    static std::shared_ptr<MFThreadSafeSet> create() {
        return std::shared_ptr<MFThreadSafeSet>(new MFThreadSafeSet());
    }

    void addObject(const T& object) {
        std::unique_lock lock(accessLock_, std::try_to_lock);
        if (!lock) return retry([object](MFThreadSafeSet& s) { s.addObject(object); });
        set_.insert(object);
    }

    void removeObject(const T& object) {
        std::unique_lock lock(accessLock_, std::try_to_lock);
        if (!lock) return retry([object](MFThreadSafeSet& s) { s.removeObject(object); });
        set_.erase(object);
    }

    void removeAllObjects() {
        std::unique_lock lock(accessLock_, std::try_to_lock);
        if (!lock) return retry([](MFThreadSafeSet& s) { s.removeAllObjects(); });
        set_.clear();
    }

    bool containsObject(const T& object) {
        systemLog("WARNING: containsObject: method called in MFThreadSafeSet");
        std::lock_guard lock(accessLock_);
        return set_.count(object) != 0;
    }

    std::vector<T> allObjects() {
        systemLog("WARNING: allObjects method calld in MFThreadSafeSet");
        std::lock_guard lock(accessLock_);
        return std::vector<T>(set_.begin(), set_.end());
    }

    // Acts on every member the predicate accepts, not only the first.
    void performAction(Action action, Predicate onObjectMatchedUsingComparator,
                       std::shared_ptr<void> context) {
        std::unique_lock lock(accessLock_, std::try_to_lock);
        if (!lock)
            return retry([action, onObjectMatchedUsingComparator, context](MFThreadSafeSet& s) {
                s.performAction(action, onObjectMatchedUsingComparator, context);
            });
        systemLog("performAction onObjectMatchedUsingComparator... _set:" + describeLocked());
        for (const auto& member : set_)
            if (onObjectMatchedUsingComparator(member)) action(member, context);
    }

    // For tests of the retry path: hold the lock from another thread.
    std::mutex& accessLock() { return accessLock_; }

  private:
    MFThreadSafeSet() = default;

    void retry(std::function<void(MFThreadSafeSet&)> op) {
        auto self = this->shared_from_this();
        mainLoop().post([self, op = std::move(op)] { op(*self); });
    }

    std::string describeLocked() const {
        std::string out = "{(";
        bool first = true;
        for (const auto& member : set_) {
            out += first ? "\n    " : ",\n    ";
            if constexpr (std::is_constructible_v<FormatArg, const T&>)
                out += FormatArg(member).objectText();
            else
                out += "<object>";
            first = false;
        }
        return out + (first ? ")}" : "\n)}");
    }

    std::mutex accessLock_;
    std::unordered_set<T, Hash> set_;
};

}  // namespace orv
