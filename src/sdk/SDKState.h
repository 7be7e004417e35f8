#pragma once
// Internal: what the shared QuorviaSDK instance holds, and the start-up that
// the class-level initWithAppToken runs on it. The facade's operations are
// one-line forwards into these parts.

#include <memory>
#include <optional>
#include <string>

#include "quorvia/QuorviaSDK.h"
#include "sdk/BannerController.h"
#include "sdk/Interception.h"
#include "service/PollService.h"

namespace quorvia::sdk {

class SDKState final {
 public:
  /// The shared instance's state (creating the shared instance).
  static SDKState& shared();
  /// `sdk`'s state.
  static SDKState& of(QuorviaSDK& sdk) { return *sdk.state_; }

  SDKState();

  /// Start-up: checks the system release, keeps the token, intercepts, merges
  /// the poll categories, then presents the launch poll or fetches. Returns
  /// null when the system release is below 8.
  QuorviaSDK* startWithAppToken(QuorviaSDK& self, const std::string& token,
                                const std::optional<platform::Value>& launchOptions,
                                bool swizzling);
  /// Observer of the app becoming active: fetches polls.
  void appDidBecomeActive() { service->fetchPolls(); }
  /// Registers the poll categories, merged with those already registered.
  void askUserForPushPermissions();
  /// Shows the poll of a push payload collapsed; anything else is ignored.
  void handleRemoteNotification(const std::optional<platform::Value>& payload);

  /// The token of the most recent start-up that passed the release gate, or
  /// nil before one (kept process-wide, apart from the appToken property).
  static std::optional<std::string> currentAppToken();

  std::optional<std::string> appTokenProperty;
  Interception interception;
  const std::shared_ptr<service::PollService> service;
  const std::shared_ptr<BannerController> banner;

 private:
  void mergeCategoriesIntoSettings();
};

}  // namespace quorvia::sdk
