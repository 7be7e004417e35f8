#pragma once
// Test fixture that installs a test environment: a virtual-clock main queue, a
// fixed wall clock, a fresh temporary data directory and a log sink that
// captures lines instead of writing them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
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
  void install(platform::ConfigurableEnvironment& env) {
    env.setLogSink([this](std::string_view line) {
      {
        std::lock_guard lock(mu_);
        lines_.emplace_back(line);
      }
      if (onLine) onLine();
    });
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mu_);
    return lines_;
  }
  int count(const std::string& line) const {
    std::lock_guard lock(mu_);
    return static_cast<int>(std::count(lines_.begin(), lines_.end(), line));
  }
  bool contains(const std::string& line) const { return count(line) > 0; }
  void clear() {
    std::lock_guard lock(mu_);
    lines_.clear();
  }
  /// Runs after each captured line, on the thread that wrote it.
  std::function<void()> onLine;

 private:
  mutable std::mutex mu_;
  std::vector<std::string> lines_;
};

/// A fresh private temporary directory, removed by the caller.
inline std::filesystem::path makeTempDirectory(const std::string& prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "XXXXXX")).string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dataDir_ = makeTempDirectory("quorvia-test-");
    env_ = platform::ConfigurableEnvironment::install(dataDir_ / "data",
                                                      platform::RunLoop::Clock::kVirtual);
    loop_ = &env_->mainRunLoop();
    // 2026-11-21 12:00:00 UTC: a fixed instant, so dates in tests are repeatable.
    wallNow_ = platform::SystemTime(std::chrono::seconds(1795262400));
    env_->setWallClock([mu = wallMu_, now = &wallNow_] {
      std::lock_guard lock(*mu);
      return *now;
    });
    log_.install(*env_);
  }
  void TearDown() override {
    loop_->drainOnce();
    env_->setLogSink({});
    env_->setWallClock({});
    std::error_code ec;
    std::filesystem::remove_all(dataDir_, ec);
  }

  /// Moves the virtual main-queue clock, running what falls due.
  void advance(double secondsToAdvance) { loop_->advance(platform::seconds(secondsToAdvance)); }
  /// Runs what is due now without moving the clock.
  void drain() { loop_->drainOnce(); }
  void advanceWallClock(double secondsToAdvance) {
    std::lock_guard lock(*wallMu_);
    wallNow_ += std::chrono::duration_cast<platform::SystemTime::duration>(
        std::chrono::duration<double>(secondsToAdvance));
  }

  std::shared_ptr<platform::ConfigurableEnvironment> env_;
  platform::RunLoop* loop_ = nullptr;  // the environment's virtual-clock main queue
  std::filesystem::path dataDir_;
  platform::SystemTime wallNow_;
  std::shared_ptr<std::mutex> wallMu_ = std::make_shared<std::mutex>();
  LogCapture log_;
};

}  // namespace quorvia::testing
