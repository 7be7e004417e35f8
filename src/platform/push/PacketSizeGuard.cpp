#include "platform/push/PacketSizeGuard.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

namespace quorvia::platform {
namespace {

// How much of either direction is held between a read and a write.
constexpr std::size_t kChunkBytes = 64 * 1024;
// MQTT 5 DISCONNECT reason codes.
constexpr std::uint8_t kMalformedPacket = 0x81;
constexpr std::uint8_t kPacketTooLarge = 0x95;
// A remaining length takes one to four bytes.
constexpr int kMaxLengthBytes = 4;

// Sends what it can without blocking; the number of bytes sent, 0 when none
// could be or the peer is gone.
std::size_t sendSome(int fd, const char* data, std::size_t size) {
  for (;;) {
    const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) return static_cast<std::size_t>(sent);
    if (errno != EINTR) return 0;
  }
}

void closeQuietly(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

// Everything below runs on the guard's thread, except stop() and refusal().
struct PacketSizeGuard::Relay {
  Relay(int broker, int client, int stop, std::uint32_t maxPacketBytes)
      : brokerFd(broker), clientFd(client), stopFd(stop), limit(maxPacketBytes) {}
  ~Relay() {
    closeQuietly(brokerFd);
    closeQuietly(clientFd);
    closeQuietly(stopFd);
  }

  int brokerFd;  // the TCP connection to the broker
  int clientFd;  // our end of the pair; libmosquitto holds the other
  int stopFd;    // an eventfd, readable once the guard is destroyed
  const std::uint64_t limit;

  std::string toBroker;     // read from the client, not yet sent on
  std::string toClient;     // from the broker, checked, not yet handed on
  bool brokerDone = false;  // nothing more comes from the broker
  bool clientDone = false;  // the client closed its end

  // Where the broker's stream is: a fixed header being read (held back until
  // its size is known), or the rest of a packet already allowed through.
  std::array<char, 1 + kMaxLengthBytes> header{};
  int headerBytes = 0;
  std::uint64_t bodyLeft = 0;

  mutable std::mutex mu;
  std::string why;  // guarded by mu

  void stop() {
    const std::uint64_t one = 1;
    while (::write(stopFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
  }

  std::string refusal() const {
    std::lock_guard lock(mu);
    return why;
  }

  // Takes the broker's bytes through the packet framing; false when a packet
  // was refused (the connection is then ended).
  bool check(const char* data, std::size_t size) {
    std::size_t at = 0;
    while (at < size) {
      if (bodyLeft > 0) {
        const std::size_t take =
            static_cast<std::size_t>(std::min<std::uint64_t>(bodyLeft, size - at));
        toClient.append(data + at, take);
        bodyLeft -= take;
        at += take;
        continue;
      }
      header[static_cast<std::size_t>(headerBytes++)] = data[at++];
      if (headerBytes == 1) continue;  // the packet type
      if (static_cast<std::uint8_t>(header[static_cast<std::size_t>(headerBytes - 1)]) & 0x80) {
        if (headerBytes == 1 + kMaxLengthBytes) {
          refuse(kMalformedPacket, "it sent a packet whose length is malformed");
          return false;
        }
        continue;
      }
      std::uint64_t remaining = 0;
      for (int i = headerBytes - 1; i >= 1; --i) {
        remaining = remaining * 128 +
                    (static_cast<std::uint8_t>(header[static_cast<std::size_t>(i)]) & 0x7F);
      }
      const std::uint64_t total = static_cast<std::uint64_t>(headerBytes) + remaining;
      if (total > limit) {
        refuse(kPacketTooLarge, "it sent a packet of " + std::to_string(total) +
                                    " bytes, larger than the limit of " + std::to_string(limit) +
                                    "; refused as too large");
        return false;
      }
      toClient.append(header.data(), static_cast<std::size_t>(headerBytes));
      headerBytes = 0;
      bodyLeft = remaining;
    }
    return true;
  }

  // Tells the broker why, unless the client's own bytes are half sent, and
  // closes the broker's side: nothing more of it is read.
  void refuse(std::uint8_t reason, std::string reasonText) {
    {
      std::lock_guard lock(mu);
      why = std::move(reasonText);
    }
    if (!toBroker.empty()) toBroker.erase(0, sendSome(brokerFd, toBroker.data(), toBroker.size()));
    if (toBroker.empty()) {
      const char disconnect[] = {'\xE0', '\x02', static_cast<char>(reason), '\x00'};
      sendSome(brokerFd, disconnect, sizeof disconnect);
    }
    ::shutdown(brokerFd, SHUT_WR);
    brokerGone();
  }

  void run() {
    pthread_setname_np(pthread_self(), "quorvia-push-io");
    char buffer[kChunkBytes];
    for (;;) {
      if (brokerDone && toClient.empty() && !clientDone) {
        // The client reads the end after every packet allowed through.
        ::shutdown(clientFd, SHUT_WR);
      }
      if (clientDone && (toBroker.empty() || brokerFd < 0)) return;
      // A side is watched only for what can be done with it now, so that a
      // peer that hung up cannot keep the thread spinning.
      const bool clientIn = !clientDone && toBroker.size() < kChunkBytes;
      const bool clientOut = !clientDone && !toClient.empty();
      const bool brokerIn = brokerFd >= 0 && !brokerDone && toClient.size() < kChunkBytes;
      const bool brokerOut = brokerFd >= 0 && !toBroker.empty();
      pollfd fds[3] = {
          {stopFd, POLLIN, 0},
          {clientIn || clientOut ? clientFd : -1,
           static_cast<short>((clientIn ? POLLIN : 0) | (clientOut ? POLLOUT : 0)), 0},
          {brokerIn || brokerOut ? brokerFd : -1,
           static_cast<short>((brokerIn ? POLLIN : 0) | (brokerOut ? POLLOUT : 0)), 0}};
      if (::poll(fds, 3, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (fds[0].revents) {
        handOnToBroker(buffer);
        return;
      }
      const short hungUp = POLLHUP | POLLERR;
      if (clientIn && (fds[1].revents & (POLLIN | hungUp))) {
        const ssize_t got = ::recv(clientFd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0) {
          // With the broker gone, the client's bytes are read only to see it close.
          if (brokerFd >= 0) toBroker.append(buffer, static_cast<std::size_t>(got));
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
          clientGone();
        }
      } else if (clientOut && (fds[1].revents & (POLLOUT | hungUp))) {
        const std::size_t sent = sendSome(clientFd, toClient.data(), toClient.size());
        if (sent == 0 && errno != EAGAIN && errno != EWOULDBLOCK) clientGone();
        toClient.erase(0, sent);
      }
      if (brokerOut && (fds[2].revents & (POLLOUT | hungUp)) && brokerFd >= 0) {
        const std::size_t sent = sendSome(brokerFd, toBroker.data(), toBroker.size());
        if (sent == 0 && errno != EAGAIN && errno != EWOULDBLOCK) brokerGone();
        toBroker.erase(0, sent);
      }
      if (brokerIn && (fds[2].revents & (POLLIN | hungUp)) && brokerFd >= 0) {
        const ssize_t got = ::recv(brokerFd, buffer, kChunkBytes - toClient.size(), MSG_DONTWAIT);
        if (got > 0) {
          check(buffer, static_cast<std::size_t>(got));
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
          brokerGone();
        }
      }
    }
  }

  void clientGone() {
    clientDone = true;
    toClient.clear();
  }

  void brokerGone() {
    brokerDone = true;
    toBroker.clear();
    closeQuietly(brokerFd);
  }

  // On the way out: what the client wrote last (its DISCONNECT) still goes.
  void handOnToBroker(char* buffer) {
    if (brokerFd < 0) return;
    for (;;) {
      const ssize_t got = ::recv(clientFd, buffer, kChunkBytes, MSG_DONTWAIT);
      if (got <= 0) break;
      toBroker.append(buffer, static_cast<std::size_t>(got));
    }
    if (!toBroker.empty()) sendSome(brokerFd, toBroker.data(), toBroker.size());
  }
};

std::unique_ptr<PacketSizeGuard> PacketSizeGuard::interpose(int clientSocket,
                                                            std::uint32_t maxPacketBytes) {
  int pair[2] = {-1, -1};
  const int broker = ::fcntl(clientSocket, F_DUPFD_CLOEXEC, 0);
  if (broker < 0) return nullptr;
  const int stop = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stop < 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) < 0) {
    const int saved = errno;
    ::close(broker);
    if (stop >= 0) ::close(stop);
    errno = saved;
    return nullptr;
  }
  // The client's descriptor now names its end of the pair; the broker's
  // socket lives on as `broker`. Replaced in one step, so that the client
  // never sees a closed descriptor.
  if (::dup3(pair[0], clientSocket, O_CLOEXEC) < 0) {
    const int saved = errno;
    for (int fd : {broker, stop, pair[0], pair[1]}) ::close(fd);
    errno = saved;
    return nullptr;
  }
  ::close(pair[0]);
  ::fcntl(broker, F_SETFL, ::fcntl(broker, F_GETFL) | O_NONBLOCK);
  std::unique_ptr<PacketSizeGuard> guard(
      new PacketSizeGuard(std::make_unique<Relay>(broker, pair[1], stop, maxPacketBytes)));
  return guard;
}

PacketSizeGuard::PacketSizeGuard(std::unique_ptr<Relay> relay)
    : relay_(std::move(relay)), thread_([relay = relay_.get()] { relay->run(); }) {}

PacketSizeGuard::~PacketSizeGuard() {
  relay_->stop();
  thread_.join();
}

std::string PacketSizeGuard::refusal() const { return relay_->refusal(); }

}  // namespace quorvia::platform
