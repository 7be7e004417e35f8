#pragma once
// Stands between the MQTT client (libmosquitto) and the broker's socket, and
// refuses a packet larger than the client announced it accepts as soon as its
// fixed header arrives. libmosquitto reads an incoming packet whole whatever
// its size, so without this a broker could make the client hold hundreds of
// megabytes before the payload limit is even looked at.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace quorvia::platform {

class PacketSizeGuard final {
 public:
  /// Puts a guard on the connection open on `clientSocket`, of which nothing
  /// has been read yet: the descriptor becomes one end of a local socket pair
  /// whose other end the guard's thread relays to and from the broker's
  /// socket. A packet from the broker larger than `maxPacketBytes` (fixed
  /// header included) is answered with DISCONNECT "Packet too large" (0x95),
  /// the broker's socket is closed, and the client reads the end of its
  /// connection after the packets before it. Null, with the descriptor
  /// unchanged and errno set, when the descriptors cannot be made.
  static std::unique_ptr<PacketSizeGuard> interpose(int clientSocket, std::uint32_t maxPacketBytes);

  /// Hands on what the client still had to send (its DISCONNECT), stops the
  /// thread and closes the broker's socket. The client's end stays the
  /// client's to close.
  ~PacketSizeGuard();
  PacketSizeGuard(const PacketSizeGuard&) = delete;
  PacketSizeGuard& operator=(const PacketSizeGuard&) = delete;

  /// Why the guard ended the connection; empty while it has not. Any thread.
  std::string refusal() const;

 private:
  struct Relay;
  explicit PacketSizeGuard(std::unique_ptr<Relay> relay);

  std::unique_ptr<Relay> relay_;
  std::thread thread_;
};

}  // namespace quorvia::platform
