#include "quorvia/QuorviaSDK.h"

#include <cctype>
#include <cstdlib>
#include <mutex>

#include "platform/Guard.h"
#include "quorvia/CategoriesManager.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Device.h"
#include "quorvia/platform/Log.h"
#include "quorvia/platform/NotificationCenter.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia {
namespace {

using platform::Value;

constexpr double kMinimumSystemRelease = 8.0;
constexpr auto kLaunchPollDelay = std::chrono::nanoseconds(100'000'000);

// The token of the latest start-up, deliberately kept apart from the appToken
// property: service calls read it from here.
struct AppTokenSlot {
  std::mutex mu;
  std::optional<std::string> token;
};

AppTokenSlot& appTokenSlot() {
  static auto* slot = new AppTokenSlot;
  return *slot;
}

// The leading integer of a version string, as the platform's intValue reads it:
// "7.1.2" -> 7, "10.0" -> 10, " 9" -> 9, "abc" -> 0.
int leadingInt(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  long long value = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > 2147483647LL) {
      value = 2147483647LL + (negative ? 1 : 0);
      break;
    }
  }
  return static_cast<int>(negative ? -value : value);
}

}  // namespace

QuorviaSDK::QuorviaSDK() = default;
QuorviaSDK::~QuorviaSDK() = default;

std::shared_ptr<QuorviaSDK> QuorviaSDK::sharedInstance() {
  // Created once and never torn down; its observer is never removed.
  static std::shared_ptr<QuorviaSDK>* shared = nullptr;
  static std::once_flag once;
  std::call_once(once, [] {
    shared = new std::shared_ptr<QuorviaSDK>(new QuorviaSDK);
    QuorviaSDK& sdk = **shared;
    sdk.addedMethods_ = Value::object();
    sdk.setDebugEnabled(true);
    platform::Application::sharedApplication().registerForRemoteNotifications();
    std::weak_ptr<QuorviaSDK> weak = *shared;
    platform::NotificationCenter::defaultCenter().addObserver(
        platform::UIApplicationDidBecomeActiveNotification, [weak](std::string_view) {
          if (auto self = weak.lock()) self->appDidBecomeActive();
        });
  });
  return *shared;
}

void QuorviaSDK::initWithAppToken(const std::string& token,
                                  const std::optional<Value>& launchOptions) {
  initWithAppToken(token, launchOptions, true);
}

void QuorviaSDK::initWithAppToken(const std::string& token,
                                  const std::optional<Value>& launchOptions, bool swizzling) {
  sharedInstance()->startWithAppToken(token, launchOptions, swizzling);
}

void QuorviaSDK::log(std::string_view message) {
  if (sharedInstance()->debug()) platform::NSLog("QuorviaSDK: " + std::string(message));
}

void QuorviaSDK::setDebug(bool debug) { sharedInstance()->setDebugEnabled(debug); }

std::optional<std::string> QuorviaSDK::currentAppToken() {
  std::lock_guard lock(appTokenSlot().mu);
  return appTokenSlot().token;
}

QuorviaSDK* QuorviaSDK::startWithAppToken(const std::string& token,
                                          const std::optional<Value>& launchOptions,
                                          bool swizzling) {
  // Integer comparison on purpose: "10.3" passes where a text comparison would not.
  if (static_cast<double>(leadingInt(platform::systemVersion())) < kMinimumSystemRelease) {
    log("iOS lower than 8.0, SDK will not run.");
    return nullptr;
  }
  {
    std::lock_guard lock(appTokenSlot().mu);
    appTokenSlot().token = token;
  }
  log("Initialized SDK with app token: " + token);

  if (swizzling) {
    swizzle();
  } else {
    log("Swizzling is disabled, please make sure to call required methods.");
  }

  mergeCategoriesIntoSettings();

  const Value* payload =
      launchOptions ? platform::valueForKey(*launchOptions, UIApplicationLaunchOptionsRemoteNotificationKey)
                    : nullptr;
  if (platform::valueForKey(payload, "poll")) {
    log("Detected poll in notification upon app launch. Presenting.");
    platform::dispatch_after(kLaunchPollDelay, [payload = *payload] {
      platform::runDroppingExceptions("Launch poll", [&] {
        auto shared = sharedInstance();
        auto view = shared->presentPollWithPollDict(platform::valueForKey(payload, "poll"));
        shared->showOptionsForNotificationView(view);
      });
    });
  } else {
    fetchPolls();
  }
  return this;
}

void QuorviaSDK::mergeCategoriesIntoSettings() {
  auto& app = platform::Application::sharedApplication();
  const platform::NotificationSettings current = app.currentUserNotificationSettings();
  if ((current.types & platform::kUserNotificationTypeAlert) == 0) return;

  const platform::CategorySet library = CategoriesManager().categories();
  std::optional<platform::CategorySet> merged;
  if (current.categories) merged = current.categories->setByAddingObjectsFromSet(library);
  // An absent current set gives an absent union, which never counts as equal.
  if (merged && merged->isEqualToSet(*current.categories)) return;
  // Deliberately no types: they are read from the new settings before it exists.
  app.registerUserNotificationSettings(
      platform::NotificationSettings::settingsForTypes(platform::kUserNotificationTypeNone, merged));
}

}  // namespace quorvia
