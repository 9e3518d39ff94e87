#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

namespace orv {

// Callbacks invoked together with one argument, in the order they were added. The handle that
// add() returns is the stored callback itself and is what remove() takes back. Main thread only.
template <typename Arg>
class ORVMulticastBlock {
  public:
    using Block = std::function<void(Arg)>;
    using Token = std::shared_ptr<const Block>;

    Token add(Block block) {
        auto token = std::make_shared<const Block>(std::move(block));
        blocks_.push_back(token);
        return token;
    }

    // A handle that is not in the list changes nothing.
    void remove(const Token& token) {
        auto it = std::find(blocks_.begin(), blocks_.end(), token);
        if (it != blocks_.end()) blocks_.erase(it);
    }

    // Synchronous, on the caller's thread. A block removed by an earlier one during the same
    // call is not run; one added during it runs from the next call on. Whatever a block throws
    // ends the call there and reaches the caller.
    void performBlocksWith(Arg arg) {
        const auto snapshot = blocks_;
        for (const auto& token : snapshot) {
            if (std::find(blocks_.begin(), blocks_.end(), token) == blocks_.end()) continue;
            (*token)(arg);
        }
    }

    size_t count() const { return blocks_.size(); }
    bool empty() const { return blocks_.empty(); }

  private:
    std::vector<Token> blocks_;
};

}  // namespace orv
