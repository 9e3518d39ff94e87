#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace orv {

// A list of callbacks fired together, for the seam's events. Slots connected or disconnected
// while firing take effect from the next emit.
template <typename... Args>
class Signal {
  public:
    using Slot = std::function<void(Args...)>;
    using Connection = uint64_t;

    Connection connect(Slot slot) {
        Connection id = next_++;
        slots_.emplace_back(id, std::move(slot));
        return id;
    }
    void disconnect(Connection id) {
        for (auto it = slots_.begin(); it != slots_.end(); ++it)
            if (it->first == id) {
                slots_.erase(it);
                return;
            }
    }
    void disconnectAll() { slots_.clear(); }
    size_t size() const { return slots_.size(); }

    void emit(Args... args) const {
        auto copy = slots_;
        for (auto& [id, slot] : copy) slot(args...);
    }

  private:
    std::vector<std::pair<Connection, Slot>> slots_;
    Connection next_ = 1;
};

}  // namespace orv
