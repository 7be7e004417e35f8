#pragma once

#include <memory>
#include <string>
#include <vector>

#include "EventWriter.h"
#include "platform/Runtime.h"

namespace quorvia::sim {

// Which of the six push callbacks the host's delegate class implements itself, and which only
// its superclass implements.
struct HostDelegateSpec {
  std::vector<std::string> implements;
  std::vector<std::string> superclassImplements;
};

// The six push callbacks of the application delegate, in the platform's order.
const std::vector<std::string>& applicationDelegateCallbacks();

// Builds the host's delegate class (named `className`, with a superclass `className` + "Base")
// and returns an object of it. Each implementation writes {"event":"hostCallback",
// "selector":…, "class":…} when it runs and then, as a well-behaved host does, calls the
// completion handler it was given (a fetch completion with "no data").
std::shared_ptr<platform::Object> makeHostDelegate(const std::string& className,
                                                   const HostDelegateSpec& spec,
                                                   std::shared_ptr<EventWriter> events);

}  // namespace quorvia::sim
