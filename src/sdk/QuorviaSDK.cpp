#include "quorvia/QuorviaSDK.h"

#include <mutex>

#include "platform/Log.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/NotificationCenter.h"
#include "sdk/SDKState.h"

namespace quorvia {

QuorviaSDK::QuorviaSDK() : state_(std::make_unique<sdk::SDKState>()) {}
QuorviaSDK::~QuorviaSDK() = default;

std::shared_ptr<QuorviaSDK> QuorviaSDK::sharedInstance() {
  // Created once and never torn down; its observer is never removed.
  static std::shared_ptr<QuorviaSDK>* shared = nullptr;
  static std::once_flag once;
  std::call_once(once, [] {
    shared = new std::shared_ptr<QuorviaSDK>(new QuorviaSDK);
    platform::setDebugLogging(true);
    platform::Application::sharedApplication().registerForRemoteNotifications();
    sdk::SDKState* state = (*shared)->state_.get();
    platform::NotificationCenter::defaultCenter().addObserver(
        platform::UIApplicationDidBecomeActiveNotification,
        [state](std::string_view) { state->appDidBecomeActive(); });
  });
  return *shared;
}

void QuorviaSDK::initWithAppToken(const std::string& token,
                                  const std::optional<platform::Value>& launchOptions) {
  initWithAppToken(token, launchOptions, true);
}

void QuorviaSDK::initWithAppToken(const std::string& token,
                                  const std::optional<platform::Value>& launchOptions,
                                  bool swizzling) {
  auto shared = sharedInstance();
  shared->state_->startWithAppToken(*shared, token, launchOptions, swizzling);
}

void QuorviaSDK::log(std::string_view message) {
  if (sharedInstance()->debug()) platform::NSLog("QuorviaSDK: " + std::string(message));
}

// The platform's switch, so that the layers below the SDK fall silent with it.
void QuorviaSDK::setDebug(bool debug) {
  sharedInstance();
  platform::setDebugLogging(debug);
}

void QuorviaSDK::askUserForPushPermissions() {
  sdk::SDKState::shared().askUserForPushPermissions();
}

void QuorviaSDK::handleRemoteNotification(const std::optional<platform::Value>& payload) {
  sdk::SDKState::shared().handleRemoteNotification(payload);
}

void QuorviaSDK::handleActionWithIdentifier(const std::optional<std::string>& identifier,
                                            const std::optional<platform::Value>& userInfo) {
  sdk::SDKState::shared().service->sendReplyWithIdentifier(identifier, userInfo, nullptr);
}

void QuorviaSDK::setDeviceToken(const std::optional<platform::Bytes>& token) {
  sdk::SDKState::shared().service->setDeviceToken(token);
}

void QuorviaSDK::setUserInfo(const std::optional<platform::Value>& userInfo) {
  sdk::SDKState::shared().service->setUserInfo(userInfo);
}

std::string_view QuorviaSDK::version() { return QUORVIA_VERSION; }

bool QuorviaSDK::debug() const { return platform::debugLogging(); }

const std::optional<std::string>& QuorviaSDK::appToken() const { return state_->appTokenProperty; }

void QuorviaSDK::setAppToken(std::optional<std::string> token) {
  state_->appTokenProperty = std::move(token);
}

}  // namespace quorvia
