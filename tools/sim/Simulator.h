#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "EventWriter.h"
#include "platform/Runtime.h"

namespace quorvia::sim {

// What the simulator is told on its command line.
struct SimulatorOptions {
  // Where relative snapshot paths are written; empty: the working directory.
  std::filesystem::path pngDirectory;
  // The MQTT broker the device registers with; empty: $QUORVIA_PUSH_BROKER, and without
  // that no push service (the deviceToken and push commands stand in for it).
  std::string pushBroker;
};

// The command interpreter of quorvia-sim: plays the host application and the platform around
// the SDK, one JSON command at a time, and reports what happens as events. Main thread only
// (the thread that runs platform::mainRunLoop()); a bad command writes an "error" event and
// changes nothing else.
class Simulator final {
 public:
  using Json = nlohmann::ordered_json;

  Simulator(std::shared_ptr<EventWriter> events, SimulatorOptions options);
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // Installs the platform around the SDK: the log sink, the application's observers and the
  // host's screen in the key window. Call once, before the first command and the first SDK call.
  void install();

  // Runs one command line (a JSON object with "cmd"). Returns false once "quit" was given.
  bool execute(std::string_view line);

 private:
  using Handler = void (Simulator::*)(const Json& command);

  // Lifecycle and the host's delegate (Simulator.cpp).
  void launch(const Json& command);
  void deviceToken(const Json& command);
  void registrationFailed(const Json& command);
  void push(const Json& command);
  void action(const Json& command);
  void lifecycle(const Json& command);
  void expireBackgroundTask(const Json& command);
  void wait(const Json& command);
  void quit(const Json& command);

  // The host calling the SDK's class operations (HostCalls.cpp).
  void setDeviceToken(const Json& command);
  void handleRemoteNotification(const Json& command);
  void handleAction(const Json& command);
  void setUserInfo(const Json& command);
  void askPermission(const Json& command);
  void setDebug(const Json& command);

  // The screen: touches, snapshots and the state event (Screen.cpp).
  void tapCard(const Json& command);
  void tapClose(const Json& command);
  void tapOption(const Json& command);
  void snapshot(const Json& command);
  void state(const Json& command);

  // Direct use of the HTTP client and the keychain (Tools.cpp).
  void request(const Json& command);
  void keychain(const Json& command);

  // Writes the events of platform requests that have no observer of their own.
  void reportPlatformRequests();
  // Delivers one callback to the application delegate; an "undelivered" event when the
  // delegate does not respond to it.
  void deliver(std::string_view selector, platform::MessageArguments arguments);

  std::shared_ptr<EventWriter> events_;
  SimulatorOptions options_;
  std::map<std::string, Handler, std::less<>> handlers_;
  std::shared_ptr<platform::Object> delegate_;
  int launches_ = 0;
  // Whether a command has called the SDK yet (its shared instance exists).
  bool sdkStarted_ = false;
  int remoteNotificationRequests_ = 0;
  bool quit_ = false;
};

}  // namespace quorvia::sim
