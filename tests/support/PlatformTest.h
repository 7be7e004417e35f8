#pragma once
// Test fixture that installs a test environment: a virtual-clock main queue, a
// fixed wall clock, a fresh temporary data directory and a log sink that
// captures lines instead of writing them.

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/ConfigurableEnvironment.h"
#include "quorvia/platform/Clock.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::testing {

/// Thread-safe capture of every NSLog line.
class LogCapture {
 public:
  void install(platform::ConfigurableEnvironment& env);
  std::vector<std::string> lines() const;
  /// Lines equal to `line`.
  int count(const std::string& line) const;
  bool contains(const std::string& line) const { return count(line) > 0; }
  void clear();
  /// Runs after each captured line, on the thread that wrote it.
  std::function<void()> onLine;

 private:
  mutable std::mutex mu_;
  std::vector<std::string> lines_;
};

class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Moves the virtual main-queue clock, running what falls due.
  void advance(double secondsToAdvance) { loop_->advance(platform::seconds(secondsToAdvance)); }
  /// Runs what is due now without moving the clock.
  void drain() { loop_->drainOnce(); }
  /// Moves the fake wall clock.
  void advanceWallClock(double secondsToAdvance);

  std::shared_ptr<platform::ConfigurableEnvironment> env_;
  platform::RunLoop* loop_ = nullptr;  // the environment's virtual-clock main queue
  std::filesystem::path dataDir_;
  platform::SystemTime wallNow_;
  std::shared_ptr<std::mutex> wallMu_ = std::make_shared<std::mutex>();
  LogCapture log_;
};

/// A fresh private temporary directory, removed by the caller.
std::filesystem::path makeTempDirectory(const std::string& prefix);

}  // namespace quorvia::testing
