// The host calling the SDK's public class operations itself, as a host that starts with
// interception off does.
#include "CommandFields.h"
#include "Simulator.h"
#include "quorvia/QuorviaSDK.h"

namespace quorvia::sim {
namespace {

const platform::Value& requiredValue(const platform::Value& command, std::string_view key) {
  const platform::Value* value = platform::valueForKey(command, key);
  if (!value) throw CommandError("\"" + std::string(key) + "\" is required");
  return *value;
}

}  // namespace

void Simulator::setDeviceToken(const Json& command) {
  sdkStarted_ = true;
  QuorviaSDK::setDeviceToken(optionalHex(command, "hex"));
}

void Simulator::handleRemoteNotification(const Json& command) {
  sdkStarted_ = true;
  QuorviaSDK::handleRemoteNotification(requiredValue(command, "payload"));
}

void Simulator::handleAction(const Json& command) {
  sdkStarted_ = true;
  QuorviaSDK::handleActionWithIdentifier(optionalString(command, "identifier"),
                                         requiredValue(command, "payload"));
}

void Simulator::setUserInfo(const Json& command) {
  sdkStarted_ = true;
  const platform::Value* userInfo = field(command, "userInfo");
  QuorviaSDK::setUserInfo(userInfo ? std::optional<platform::Value>(*userInfo) : std::nullopt);
}

void Simulator::askPermission(const Json&) {
  sdkStarted_ = true;
  QuorviaSDK::askUserForPushPermissions();
}

void Simulator::setDebug(const Json& command) {
  const platform::Value* on = field(command, "on");
  if (!on || !on->is_boolean()) throw CommandError("\"on\" must be true or false");
  sdkStarted_ = true;
  QuorviaSDK::setDebug(on->get<bool>());
}

}  // namespace quorvia::sim
