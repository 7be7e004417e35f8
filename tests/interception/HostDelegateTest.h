#pragma once
// Fixture for interception tests: builds host delegate classes in the
// delegate-class runtime whose methods record what reached them, installs one
// as the application's delegate, and delivers callbacks as the platform does.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/Runtime.h"
#include "support/FakeTransport.h"
#include "support/PlatformTest.h"

namespace quorvia::testing {

/// One call that reached the host's own code, with what the library had done
/// by then.
struct HostCall {
  std::string owner;     // the class whose implementation ran
  std::string selector;  // the callback it implements
  platform::MessageArguments arguments;
  std::size_t deviceTokensBefore = 0;
  std::size_t repliesBefore = 0;
  int presentPollBefore = 0;
};

/// The six callbacks in installation order.
inline const std::vector<std::string_view>& allCallbacks() {
  static const std::vector<std::string_view> callbacks = {
      platform::kDidRegisterForRemoteNotificationsSelector,
      platform::kDidFailToRegisterForRemoteNotificationsSelector,
      platform::kDidReceiveRemoteNotificationSelector,
      platform::kDidReceiveRemoteNotificationFetchSelector,
      platform::kHandleActionSelector,
      platform::kHandleActionWithResponseInfoSelector};
  return callbacks;
}

class HostDelegateTest : public PlatformTest {
 protected:
  void SetUp() override;
  /// Indexes of the recorded requests whose path contains `part`.
  std::vector<std::size_t> requestsTo(const std::string& part) const;
  std::size_t replyCount() const { return requestsTo("/replies/").size(); }
  std::size_t registrationCount() const { return requestsTo("/endpoints/").size(); }
  /// Banners presented by deliveries so far, and how many of them opened expanded.
  int presentations() const { return presentations_; }
  int expansions() const { return expansions_; }
  /// Whether a banner is on screen now, counted with those presented before.
  int presentationsIncludingCurrent() const;
  /// Answers every pending request with 200 and `body`, then runs the main queue.
  void answerAll(const std::string& body = "{}");

  /// Host behaviour of an implemented callback that carries a completion.
  enum class HostCompletion { kNever, kAtOnce };

  /// A class `name` (superclass `superclass`) implementing `implemented` itself.
  std::shared_ptr<platform::Class> makeDelegateClass(
      const std::string& name, const std::vector<std::string_view>& implemented,
      std::shared_ptr<platform::Class> superclass = nullptr,
      HostCompletion completion = HostCompletion::kNever);
  /// Makes an object of `cls` the application's delegate.
  std::shared_ptr<platform::Object> installDelegate(std::shared_ptr<platform::Class> cls);

  /// Arguments for `selector` that a platform would pass, with completions
  /// that count their calls into this fixture.
  platform::MessageArguments argumentsFor(std::string_view selector);
  /// Delivers `selector` to the application's delegate with argumentsFor().
  bool deliver(std::string_view selector);
  bool deliver(std::string_view selector, platform::MessageArguments arguments);

  /// Host calls of `selector` so far.
  std::vector<HostCall> hostCallsOf(std::string_view selector) const;

  std::shared_ptr<std::vector<HostCall>> hostCalls_ = std::make_shared<std::vector<HostCall>>();
  std::shared_ptr<std::vector<int>> fetchCompletions_ = std::make_shared<std::vector<int>>();
  std::shared_ptr<int> actionCompletions_ = std::make_shared<int>(0);

  platform::Value pollPayload_ = platform::Value::parse(
      R"({"aps":{"alert":"Do you like it?"},"poll":{"id":7,"question":"Do you like it?"}})");
  platform::Bytes token_ = {0x00, 0x01, 0xab, 0xff, 0x10};
  std::shared_ptr<FakeTransport> transport_;
  std::size_t answered_ = 0;
  int presentations_ = 0;
  int expansions_ = 0;
};

}  // namespace quorvia::testing
