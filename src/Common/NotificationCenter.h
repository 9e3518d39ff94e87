#pragma once

// In-process notifications by name, delivered synchronously on the poster's thread (the main
// loop in this program), like the platform's default notification centre.

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace orv {

struct Notification {
    std::string name;
    const void* object = nullptr;  // the sender, compared by address only
    std::map<std::string, std::any> userInfo;
};

class NotificationCenter {
  public:
    using Token = uint64_t;
    using Callback = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    // object null: notifications from any sender.
    Token addObserver(const std::string& name, const void* object, Callback callback);
    void removeObserver(Token token);
    void removeAll();
    void post(const Notification& notification);
    void post(const std::string& name, const void* object = nullptr) {
        post(Notification{name, object, {}});
    }
    size_t observerCount(const std::string& name) const;

  private:
    struct Entry {
        Token token;
        std::string name;
        const void* object;
        Callback callback;
    };
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    Token next_ = 1;
};

}  // namespace orv
