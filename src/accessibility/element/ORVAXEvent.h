#pragma once

#include <memory>

namespace orv {

class ORVAXElement;
using ORVAXElementRef = std::shared_ptr<ORVAXElement>;

// One delivered accessibility notification.
class ORVAXEvent {
  public:
    ORVAXEvent(ORVAXElementRef context, ORVAXElementRef data)
        : context_(std::move(context)), data_(std::move(data)) {}

    // The very wrapper the subscription was made on.
    const ORVAXElementRef& context() const { return context_; }
    // A new wrapper of the element the notification names (an application reports its newly
    // focused child here), so its cached attributes are read anew. Null only if the platform
    // named no element.
    const ORVAXElementRef& data() const { return data_; }

  private:
    ORVAXElementRef context_;
    ORVAXElementRef data_;
};
using ORVAXEventRef = std::shared_ptr<ORVAXEvent>;

}  // namespace orv
