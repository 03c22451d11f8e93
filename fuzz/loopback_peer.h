// A loopback TCP peer for the fuzz targets of the socket readers: connects
// a CSITcpSocket to a listener of this process, writes the fuzzer's bytes
// from the accepted end and ends that connection with a reset. The client
// still reads every byte queued before the reset, then sees the connection
// gone; neither end is left in TIME_WAIT, which a long run would otherwise
// fill with some 13,000 connections a minute until a connect failed.
#pragma once

#include <quenlib/csitcpsocket.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace fuzzpeer {

// A failure of the harness itself, not of the code under test: says what
// failed so that it is not taken for a finding.
inline void require(bool condition, char const* what) {
  if (condition) return;
  std::fprintf(stderr, "loopback peer: %s failed: %s\n", what, std::strerror(errno));
  __builtin_trap();
}

struct Listener {
  int fd;
  unsigned short port;
};

// A listener on 127.0.0.1, made once per process.
inline Listener const& loopback() {
  static Listener const made = [] {
    int const s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    require(s >= 0 && ::bind(s, reinterpret_cast<sockaddr*>(&a), len) == 0 && ::listen(s, 4) == 0,
            "listen");
    ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    return Listener{s, ntohs(a.sin_port)};
  }();
  return made;
}

// Opens `client` (made for 127.0.0.1 and loopback().port) and hands it
// `size` bytes, which must fit the socket buffers so that one thread can
// write them all first.
inline void feed(QuenLibA500::CSITcpSocket& client, uint8_t const* data, size_t size) {
  require(client.TcpOpen(false) && client.IsOpen(), "connect");
  int const peer = ::accept4(loopback().fd, nullptr, nullptr, SOCK_CLOEXEC);
  require(peer >= 0, "accept");
  for (size_t done = 0; done < size;) {
    ssize_t const n = ::send(peer, data + done, size - done, MSG_NOSIGNAL);
    require(n > 0, "send");
    done += static_cast<size_t>(n);
  }
  linger const reset{1, 0};
  ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  ::close(peer);
}

}  // namespace fuzzpeer
