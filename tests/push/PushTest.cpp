// The push service against a mosquitto broker of the test's own on loopback:
// the device token, the persistent session, what payloads arrive, and how
// they reach the application delegate.

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <numeric>
#include <thread>

#include "platform/ApplicationDelegateRuntime.h"
#include "platform/Runtime.h"
#include "platform/push/DeviceTokenFile.h"
#include "platform/push/NotificationActions.h"
#include "platform/push/RemoteNotifications.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/PushService.h"
#include "support/MosquittoBroker.h"
#include "support/PlatformTest.h"

namespace quorvia::testing {
namespace {

using platform::Bytes;
using platform::MessageArguments;
using platform::Value;

Bytes contents(const std::filesystem::path& path) {
  return Bytes(std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {});
}
Value numbered(int n) { return Value{{"aps", {{"alert", "Poll " + std::to_string(n)}}}, {"n", n}}; }

constexpr const char* kNotCalled =
    "QuorviaSDK: a push's fetch completion handler was not called within 30 seconds";

/// What one set of handlers was given, in order. Main queue only.
struct Seen {
  std::vector<Bytes> tokens;
  std::vector<platform::Error> errors;
  std::vector<Value> payloads;
  std::vector<int> numbers() const {
    std::vector<int> numbers;
    for (const Value& payload : payloads) numbers.push_back(payload.value("n", -1));
    return numbers;
  }
};

// A broker of the test's own on loopback that answers the client's CONNECT
// and SUBSCRIBE as an MQTT 5 broker does, then starts a PUBLISH announcing
// `announced` bytes and streams its body for as long as the client takes it.
// Later connections are counted by their CONNECT and closed.
class HostileBroker final {
 public:
  struct Seen {
    int connects = 0;
    std::uint64_t bodyBytesTaken = 0;  // of the announced packet, on the first connection
    bool streamEnded = false;          // the client closed or stopped taking it
    bool clientClosed = false;         // closed rather than stalled
    std::vector<int> disconnectReasons;
  };

  explicit HostileBroker(std::uint64_t announced) : announced_(announced) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 4) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "no loopback listener";
      return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~HostileBroker() {
    const std::uint64_t one = 1;
    EXPECT_EQ(::write(stop_, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    if (thread_.joinable()) thread_.join();
    ::close(listener_);
    ::close(stop_);
  }
  HostileBroker(const HostileBroker&) = delete;
  HostileBroker& operator=(const HostileBroker&) = delete;

  int port() const { return port_; }
  /// Waits until `done` holds or `bound` passed; returns what was seen.
  Seen waitFor(const std::function<bool(const Seen&)>& done, std::chrono::seconds bound) {
    std::unique_lock lock(mu_);
    changed_.wait_for(lock, bound, [&] { return done(seen_); });
    return seen_;
  }

 private:
  template <typename F>
  void update(F change) {
    {
      std::lock_guard lock(mu_);
      change(seen_);
    }
    changed_.notify_all();
  }

  // Waits for `events` on `fd` or the stop; the revents, 0 on stop or after
  // the bound.
  short await(int fd, short events) {
    pollfd fds[2] = {{fd, events, 0}, {stop_, POLLIN, 0}};
    if (::poll(fds, 2, 30'000) <= 0 || fds[1].revents) return 0;
    return fds[0].revents;
  }

  // Reads what the client sent into `in` and takes whole packets out of it.
  // False when the connection ended or the stop came.
  bool readPackets(int fd, std::string& in, std::vector<std::string>& packets) {
    char buffer[4096];
    const ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got <= 0) return got < 0 && errno == EAGAIN;
    in.append(buffer, static_cast<std::size_t>(got));
    for (;;) {
      std::size_t at = 1, remaining = 0, shift = 0;
      bool complete = false;
      while (at < in.size() && at <= 4) {
        const auto byte = static_cast<std::uint8_t>(in[at++]);
        remaining |= static_cast<std::size_t>(byte & 0x7F) << shift;
        shift += 7;
        if (!(byte & 0x80)) {
          complete = true;
          break;
        }
      }
      if (!complete || in.size() < at + remaining) return true;
      packets.push_back(in.substr(0, at + remaining));
      in.erase(0, at + remaining);
    }
  }

  // The client's next packet of `type` (the high nibble), or empty.
  std::string next(int fd, std::string& in, std::uint8_t type) {
    std::vector<std::string> packets;
    for (;;) {
      for (const std::string& packet : packets) {
        if ((static_cast<std::uint8_t>(packet[0]) >> 4) == type) return packet;
      }
      packets.clear();
      if (!(await(fd, POLLIN) & (POLLIN | POLLHUP)) || !readPackets(fd, in, packets)) return {};
    }
  }

  void send(int fd, std::initializer_list<std::uint8_t> bytes) {
    const std::vector<char> data(bytes.begin(), bytes.end());
    ASSERT_EQ(::send(fd, data.data(), data.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(data.size()));
  }

  void run() {
    for (int connection = 0;; ++connection) {
      if (!(await(listener_, POLLIN) & POLLIN)) return;
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd < 0) return;
      std::string in;
      if (next(fd, in, 1).empty()) {  // CONNECT
        ::close(fd);
        continue;
      }
      update([](Seen& seen) { ++seen.connects; });
      if (connection == 0) attack(fd, in);
      ::close(fd);
    }
  }

  void attack(int fd, std::string& in) {
    send(fd, {0x20, 0x03, 0x00, 0x00, 0x00});  // CONNACK: accepted, no properties
    const std::string subscribe = next(fd, in, 8);
    if (subscribe.size() < 4) return;
    // SUBACK for its packet identifier (after a one-byte length): QoS 1 granted.
    send(fd, {0x90, 0x04, static_cast<std::uint8_t>(subscribe[2]),
              static_cast<std::uint8_t>(subscribe[3]), 0x00, 0x01});
    std::vector<std::uint8_t> header = {0x30};  // PUBLISH, QoS 0
    for (std::uint64_t length = announced_;; length >>= 7) {
      header.push_back(static_cast<std::uint8_t>((length & 0x7F) | (length >= 0x80 ? 0x80 : 0)));
      if (length < 0x80) break;
    }
    ASSERT_EQ(::send(fd, header.data(), header.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(header.size()));
    const std::string body(64 * 1024, 'x');
    std::uint64_t taken = 0;
    bool closed = false;
    std::vector<std::string> packets;
    while (taken < announced_) {
      const short ready = await(fd, POLLIN | POLLOUT);
      if (ready == 0) break;  // stalled: neither taken nor closed within the bound
      if (ready & (POLLIN | POLLHUP | POLLERR)) {
        if (!readPackets(fd, in, packets)) {
          closed = true;
          break;
        }
      }
      if (ready & POLLOUT) {
        const ssize_t sent = ::send(
            fd, body.data(),
            static_cast<std::size_t>(std::min<std::uint64_t>(body.size(), announced_ - taken)),
            MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN) {
          closed = true;
          break;
        }
        taken += static_cast<std::uint64_t>(std::max<ssize_t>(sent, 0));
      }
    }
    // What the client said before it went.
    while (closed && readPackets(fd, in, packets) && (await(fd, POLLIN) & (POLLIN | POLLHUP))) {
    }
    update([&](Seen& seen) {
      seen.bodyBytesTaken = taken;
      seen.streamEnded = true;
      seen.clientClosed = closed;
      for (const std::string& packet : packets) {
        if (static_cast<std::uint8_t>(packet[0]) == 0xE0 && packet.size() >= 3) {
          seen.disconnectReasons.push_back(static_cast<std::uint8_t>(packet[2]));
        }
      }
    });
  }

  const std::uint64_t announced_;
  int listener_ = -1;
  int stop_ = ::eventfd(0, EFD_CLOEXEC);
  int port_ = 0;
  std::thread thread_;
  std::mutex mu_;
  std::condition_variable changed_;
  Seen seen_;  // guarded by mu_
};

class PushTest : public PlatformTest {
 protected:
  [[nodiscard]] bool startBroker() {
    if (!broker_) broker_.emplace(dataDir_ / "broker");
    std::string error;
    const bool started = broker_->start(port_, &error);
    if (!started) ADD_FAILURE() << error;
    return started;
  }
  std::string brokerURL() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }
  std::filesystem::path appData() const { return dataDir_ / "data"; }
  std::shared_ptr<platform::PushService> makeService() {
    return platform::makeMqttPushService({brokerURL(), appData()});
  }
  static platform::PushService::Handlers recordInto(const std::shared_ptr<Seen>& seen) {
    return {[seen](Bytes token) { seen->tokens.push_back(std::move(token)); },
            [seen](platform::Error error) { seen->errors.push_back(std::move(error)); },
            [seen](Value payload) { seen->payloads.push_back(std::move(payload)); }};
  }
  bool waitFor(const std::function<bool()>& done) {
    return loop_->runUntil(done, std::chrono::seconds(30));
  }
  Bytes registerAndWait(platform::PushService& service, const std::shared_ptr<Seen>& seen) {
    service.registerForRemoteNotifications(recordInto(seen));
    EXPECT_TRUE(waitFor([&] { return !seen->tokens.empty(); })) << "no token";
    return seen->tokens.empty() ? Bytes{} : seen->tokens.front();
  }
  void installDelegate(const std::vector<std::string_view>& selectors) {
    auto cls = platform::Class::create("PushTestDelegate");
    for (std::string_view selector : selectors) {
      platform::class_addMethod(
          cls.get(), selector,
          [calls = calls_, selector = std::string(selector)](platform::Object&,
                                                             const MessageArguments& arguments) {
            calls->emplace_back(selector, arguments);
          },
          platform::applicationDelegateTypeEncoding(selector));
    }
    platform::setDelegateObject(platform::Application::sharedApplication(),
                                std::make_shared<platform::Object>(cls));
  }

  std::shared_ptr<std::vector<std::pair<std::string, MessageArguments>>> calls_ =
      std::make_shared<std::vector<std::pair<std::string, MessageArguments>>>();
  std::optional<MosquittoBroker> broker_;
  int port_ = MosquittoBroker::freePort();
};

// One token per data directory, kept in a private file; any file that is not
// a private 32-byte token is logged and replaced, never trusted, never fatal.
TEST_F(PushTest, OneTokenPerDataDirectoryKeptPrivate) {
  struct Case {
    const char* name;
    std::size_t size;  // of the file there before; 0: none
    mode_t mode;
    bool symlink, kept;
  };
  const Case cases[] = {{"missing", 0, 0, false, false},
                        {"stored", 32, 0600, false, true},
                        {"too short", 31, 0600, false, false},
                        {"too long", 33, 0600, false, false},
                        {"readable by others", 32, 0644, false, false},
                        {"symbolic link", 32, 0600, true, false}};
  int round = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    const auto directory = dataDir_ / std::to_string(round++) / "app";
    const auto file = directory / platform::kDeviceTokenFileName;
    std::filesystem::create_directories(c.size ? directory : directory.parent_path());
    if (c.size) {
      ::chmod(directory.c_str(), 0700);
      const auto written = c.symlink ? directory / "elsewhere" : file;
      std::ofstream(written, std::ios::binary) << std::string(c.size, '\xab');
      ::chmod(written.c_str(), c.mode);
      if (c.symlink) std::filesystem::create_symlink(written, file);
    }

    const std::optional<Bytes> token = platform::loadOrCreateDeviceToken(directory);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->size(), platform::kDeviceTokenBytes);
    EXPECT_EQ(*token == Bytes(32, 0xab), c.kept);
    EXPECT_EQ(contents(file), *token);
    struct stat st {};
    ASSERT_EQ(::lstat(file.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    ASSERT_EQ(::stat(directory.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    EXPECT_EQ(log_.lines().empty(), c.kept || !c.size);
    EXPECT_EQ(platform::loadOrCreateDeviceToken(directory), token) << "the same token next time";
  }
}

// A broker that is not there yet: one failure with the reason, retries, and
// the token once it is up. The device is the data directory's token, reported
// once per registration and by every instance. Its session outlives the
// client: what was pushed while the app was away arrives once each, in order.
// It outlives a broker restart too; QoS 1 lets the broker repeat a push whose
// acknowledgement the restart cut off, but nothing is lost.
TEST_F(PushTest, PushesOutliveTheClientAndTheBroker) {
  auto seen = std::make_shared<Seen>();
  auto service = makeService();
  service->registerForRemoteNotifications(recordInto(seen));
  ASSERT_TRUE(waitFor([&] { return !seen->errors.empty(); }));
  EXPECT_EQ(seen->errors[0].domain, platform::kQuorviaPushErrorDomain);
  EXPECT_EQ(seen->errors[0].code, platform::kQuorviaPushErrorUnreachable);
  EXPECT_NE(seen->errors[0].localizedDescription().find("cannot be reached: Connection refused"),
            std::string::npos);
  ASSERT_TRUE(startBroker());
  ASSERT_TRUE(waitFor([&] { return !seen->tokens.empty(); }));
  const Bytes token = seen->tokens[0];
  EXPECT_EQ(token, contents(appData() / platform::kDeviceTokenFileName));
  auto other = std::make_shared<Seen>();
  EXPECT_EQ(registerAndWait(*service, other), token) << "a later call reports it again";
  const std::string topic = deviceTopic(token);
  service.reset();
  auto publish = [&](int from, int to) {
    DeviceSubscriber publisher(port_);
    for (int n = from; n < to; ++n) ASSERT_TRUE(publisher.publish(topic, numbered(n).dump()));
  };
  auto arrived = [&](int n) {
    return waitFor(
        [&] { return !seen->payloads.empty() && seen->payloads.back().value("n", -1) == n; });
  };
  publish(0, 100);
  service = makeService();
  service->registerForRemoteNotifications(recordInto(seen));
  ASSERT_TRUE(waitFor([&] { return seen->tokens.size() == 2; }));
  EXPECT_EQ(seen->tokens[1], token) << "a new instance, the same device";
  publish(100, 101);  // after the reconnect: it comes after every queued one
  ASSERT_TRUE(arrived(100));
  std::vector<int> expected(101);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(seen->numbers(), expected) << "none lost, none twice";
  EXPECT_EQ(seen->payloads.front(), numbered(0));

  broker_->stop();
  ASSERT_TRUE(startBroker());
  publish(101, 102);
  ASSERT_TRUE(arrived(101));
  const std::vector<int> numbers = seen->numbers();
  EXPECT_TRUE(std::all_of(numbers.begin() + 101, numbers.end() - 1, [](int n) { return n <= 100; }))
      << "only repeats of acknowledged-late pushes before the new one";
  EXPECT_EQ(seen->tokens.size(), 2u) << "a reconnect does not report the token again";
  EXPECT_EQ(other->tokens.size(), 1u);
  EXPECT_EQ(seen->errors.size(), 1u) << "the failure was reported once";
}

// Only JSON objects within the size limit reach the handler; everything else
// is logged with one line and the client carries on.
TEST_F(PushTest, OnlyJsonObjectsWithinTheLimitArrive) {
  ASSERT_TRUE(startBroker());
  auto seen = std::make_shared<Seen>();
  auto service = makeService();
  const std::string topic = deviceTopic(registerAndWait(*service, seen));
  const std::string dropped[] = {
      "hello",
      "[1,2]",
      "",
      "{\"a\":\"\xff\"}",
      std::string(600, '[') + std::string(600, ']'),
      "{\"blob\":\"" + std::string(platform::kMaxPushPayloadBytes, 'y') + "\"}"};
  const Value large = {{"aps", {{"alert", "large"}}}, {"blob", std::string(1 << 20, 'x')}};
  DeviceSubscriber publisher(port_);
  for (const auto& payload : dropped) ASSERT_TRUE(publisher.publish(topic, payload));
  ASSERT_TRUE(publisher.publish(topic, large.dump()));
  ASSERT_TRUE(waitFor([&] { return !seen->payloads.empty(); }));
  EXPECT_EQ(seen->payloads, std::vector<Value>{large}) << "what came before was dropped";
  int lines = 0;
  for (const auto& line : log_.lines()) lines += line.starts_with("QuorviaSDK: push dropped");
  EXPECT_EQ(lines, 6);
}

// The push service's token and payloads reach the delegate; a payload comes
// through the fetch form when the delegate has it, else the plain form. The fetch completion counts
// once; one never called is logged when the platform's 30 s for the push are over, not before.
TEST_F(PushTest, PushReachesTheDelegateFormItImplementsAndItsCompletionCountsOnce) {
  const std::string_view plain = platform::kDidReceiveRemoteNotificationSelector,
                         fetch = platform::kDidReceiveRemoteNotificationFetchSelector;
  struct Case {
    bool withFetch;
    int completions, notCalledLines, calledAgainLines;
  };
  // Through the platform, from the broker.
  ASSERT_TRUE(startBroker());
  env_->setPushService(makeService());
  installDelegate({platform::kDidRegisterForRemoteNotificationsSelector, plain});
  platform::Application::sharedApplication().registerForRemoteNotifications();
  ASSERT_TRUE(waitFor([&] { return calls_->size() == 1; }));
  DeviceSubscriber publisher(port_);
  ASSERT_TRUE(
      publisher.publish(deviceTopic(*calls_->front().second.deviceToken), numbered(1).dump()));
  ASSERT_TRUE(waitFor([&] { return calls_->size() == 2; }));
  EXPECT_EQ(calls_->back().first, plain);
  EXPECT_EQ(calls_->back().second.userInfo, numbered(1));
  env_->setPushService(nullptr);

  for (const Case& c : {Case{false, 0, 0, 0}, {true, 0, 1, 0}, {true, 1, 0, 0}, {true, 3, 0, 2}}) {
    SCOPED_TRACE(::testing::Message() << c.withFetch << " " << c.completions);
    calls_->clear();
    log_.clear();
    installDelegate(c.withFetch ? std::vector{plain, fetch} : std::vector{plain});
    platform::deliverRemoteNotification(numbered(1));
    ASSERT_EQ(calls_->size(), 1u) << "one payload, one form";
    const auto& [selector, arguments] = calls_->front();
    EXPECT_EQ(selector, c.withFetch ? fetch : plain);
    EXPECT_EQ(arguments.userInfo, numbered(1));
    EXPECT_EQ(arguments.application, &platform::Application::sharedApplication());
    EXPECT_EQ(static_cast<bool>(arguments.fetchCompletionHandler), c.withFetch);
    for (int i = 0; i < c.completions; ++i) arguments.fetchCompletionHandler(0);
    advance(29.9);
    EXPECT_EQ(log_.count(kNotCalled), 0);
    advance(0.2);
    EXPECT_EQ(log_.count(kNotCalled), c.notCalledLines);
    EXPECT_EQ(log_.count("QuorviaSDK: a push's fetch completion handler was called again; ignored"),
              c.calledAgainLines);
  }
}

// What the platform keeps of a delivered push or action ends with its
// completion handler: called at once (on the main thread or another), nothing
// is left; never called, it is kept until its 30 s are over, logged once, and
// then dropped too. A flood therefore leaves memory where it was.
TEST_F(PushTest, ADeliveredPushOrActionKeepsNothingOnceCompletedOrLate) {
  constexpr int kDeliveries = 1000;
  enum class Completion { kAtOnce, kFromAnotherThread, kNever };
  struct Kind {
    const char* name;
    std::string_view selector;
    std::function<void()> deliver;
    std::function<void(const MessageArguments&)> complete;
    std::function<std::size_t()> awaited;
    const char* lateLine;
  };
  const Kind kinds[] = {
      {"push", platform::kDidReceiveRemoteNotificationFetchSelector,
       [] { platform::deliverRemoteNotification(numbered(1)); },
       [](const MessageArguments& a) { a.fetchCompletionHandler(0); },
       platform::pushFetchCompletionsAwaited, kNotCalled},
      {"action", platform::kHandleActionSelector,
       [] { platform::deliverNotificationAction("yes", numbered(1)); },
       [](const MessageArguments& a) { a.completionHandler(); }, platform::actionCompletionsAwaited,
       "QuorviaSDK: a notification action's completion handler was not called within 30 "
       "seconds"}};
  for (const Kind& kind : kinds) {
    for (Completion completion :
         {Completion::kAtOnce, Completion::kFromAnotherThread, Completion::kNever}) {
      SCOPED_TRACE(::testing::Message() << kind.name << " " << static_cast<int>(completion));
      calls_->clear();
      log_.clear();
      installDelegate({kind.selector});
      for (int i = 0; i < kDeliveries; ++i) kind.deliver();
      ASSERT_EQ(calls_->size(), static_cast<std::size_t>(kDeliveries));
      if (completion == Completion::kAtOnce) {
        for (const auto& call : *calls_) kind.complete(call.second);
      } else if (completion == Completion::kFromAnotherThread) {
        std::thread([&] {
          for (const auto& call : *calls_) kind.complete(call.second);
        }).join();
      }
      const std::size_t kept = completion == Completion::kNever ? kDeliveries : 0;
      EXPECT_EQ(kind.awaited(), kept) << "before the deadline";
      advance(29.9);
      EXPECT_EQ(kind.awaited(), kept);
      EXPECT_EQ(log_.count(kind.lateLine), 0);
      advance(0.2);
      EXPECT_EQ(kind.awaited(), 0u) << "after the deadline";
      EXPECT_EQ(log_.count(kind.lateLine), static_cast<int>(kept));
      // Completing after the deadline neither logs nor keeps anything.
      if (completion == Completion::kNever) kind.complete(calls_->front().second);
      EXPECT_EQ(kind.awaited(), 0u);
      EXPECT_EQ(log_.lines().size(), kept);
    }
  }
}

// A broker that sends a packet larger than the client announced it accepts
// (a 200 MiB PUBLISH) is refused from the packet's fixed header: DISCONNECT
// "Packet too large" (0x95), the connection closed after a bounded part of
// the packet, one line saying why, and the client connects again as after
// any lost connection.
TEST_F(PushTest, APacketLargerThanAnnouncedIsRefusedAsItArrives) {
  constexpr std::uint64_t kAnnounced = 200ull << 20;
  HostileBroker broker(kAnnounced);
  auto service = platform::makeMqttPushService(
      {"mqtt://127.0.0.1:" + std::to_string(broker.port()), appData()});
  service->registerForRemoteNotifications(recordInto(std::make_shared<Seen>()));
  const HostileBroker::Seen seen =
      broker.waitFor([](const HostileBroker::Seen& s) { return s.streamEnded && s.connects >= 2; },
                     std::chrono::seconds(60));
  ASSERT_TRUE(seen.streamEnded) << "the client neither closed nor stalled";
  EXPECT_TRUE(seen.clientClosed) << "the client stopped reading but kept the connection";
  EXPECT_LT(seen.bodyBytesTaken, 32ull << 20) << "far less than the announced packet was taken";
  EXPECT_EQ(seen.disconnectReasons, std::vector<int>{0x95});
  EXPECT_GE(seen.connects, 2) << "no reconnect";
  service.reset();
  int lines = 0;
  for (const auto& line : log_.lines()) {
    lines += line.starts_with("QuorviaSDK: push broker connection lost (it sent a packet of " +
                              std::to_string(kAnnounced + 5) + " bytes, larger than the limit of " +
                              std::to_string(platform::kMaxPushPayloadBytes + 64 * 1024) +
                              "; refused as too large); reconnecting");
  }
  EXPECT_EQ(lines, 1) << ::testing::PrintToString(log_.lines());
}

}  // namespace
}  // namespace quorvia::testing
