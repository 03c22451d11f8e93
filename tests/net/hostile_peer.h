// A loopback peer that misbehaves on a schedule: it says, reads, stalls,
// drips, floods, dials the client's data port and holds, or closes, step by
// step as the test's table says. Also a TCP proxy that cuts or stalls the
// stream after a chosen number of bytes, and the checks every hostile case
// shares (descriptors, temporary files, elapsed time). Every wait has a
// deadline.
#pragma once

#include "net_support.h"

#include <arpa/inet.h>
#include <dirent.h>

#include <atomic>
#include <cstdio>

namespace hostile {

using namespace nettest;

enum class Act { Say, Read, Stall, Drip, Flood, Dial, Hold };

struct Step {
  Act act;
  std::string text;  // Say, Drip, Flood: the bytes
  int n = 0;         // Stall, Hold: milliseconds; Drip: repeats (200 ms apart); Flood: bytes
};
inline Step Say(std::string t) { return {Act::Say, std::move(t)}; }
// One line, or with `until` every line up to one equal to it.
inline Step Read(std::string until = {}) { return {Act::Read, std::move(until)}; }
inline Step Stall(int ms) { return {Act::Stall, {}, ms}; }
inline Step Drip(std::string t, int times) { return {Act::Drip, std::move(t), times}; }
inline Step Flood(int bytes, std::string unit = "x") { return {Act::Flood, std::move(unit), bytes}; }
// Connects to the port the client announced in its last PORT/EPRT line;
// with `sink` reads it to its end, else keeps it open, unread, until the
// script ends.
inline Step Dial(bool sink = false) { return {Act::Dial, {}, sink ? 1 : 0}; }
// Reads nothing until the client closes or `ms` pass.
inline Step Hold(int ms) { return {Act::Hold, {}, ms}; }
using Script = std::vector<Step>;

inline bool sleepUnlessClosed(int fd, int ms) {
  pollfd p{fd, POLLRDHUP, 0};
  return ::poll(&p, 1, ms) == 0;
}

// The client's data address from "PORT h1,h2,h3,h4,p1,p2" or "EPRT |2|addr|port".
inline int dialAnnounced(std::string const& line) {
  unsigned h[6] = {};
  char addr[64] = {};
  unsigned port = 0;
  sockaddr_storage a{};
  if (std::sscanf(line.c_str(), "PORT %u,%u,%u,%u,%u,%u", &h[0], &h[1], &h[2], &h[3], &h[4], &h[5]) == 6) {
    a = loopback(AF_INET, static_cast<unsigned short>(h[4] << 8 | h[5]));
  } else if (std::sscanf(line.c_str(), "EPRT |2|%63[^|]|%u", addr, &port) == 2) {
    a = loopback(AF_INET6, static_cast<unsigned short>(port));
  } else {
    return -1;
  }
  int s = ::socket(a.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(s, reinterpret_cast<sockaddr*>(&a), lengthOf(a.ss_family)) != 0) return ::close(s), -1;
  return s;
}

// One line without its CR LF from `fd` (bytes read past it stay in
// `pending`), within 5 s.
inline bool readLine(int fd, std::string& pending, std::string& line) {
  auto const end = std::chrono::steady_clock::now() + 5s;
  char buf[4096];
  while (pending.find('\n') == std::string::npos) {
    pollfd p{fd, POLLIN, 0};
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    ssize_t const n = left.count() > 0 && ::poll(&p, 1, static_cast<int>(left.count())) > 0
                          ? ::recv(fd, buf, sizeof buf, 0) : 0;
    if (n <= 0) return false;
    pending.append(buf, static_cast<size_t>(n));
  }
  size_t const lf = pending.find('\n');
  line = pending.substr(0, lf > 0 && pending[lf - 1] == '\r' ? lf - 1 : lf);
  pending.erase(0, lf + 1);
  return true;
}

// Runs `script` on the connection `fd`; the lines read go to `heard`.
inline void play(int fd, Script const& script, std::vector<std::string>& heard) {
  timeval const limit{3, 0};  // a client that stops reading cannot hold a Say or a Flood
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  int data = -1;
  std::string pending;
  for (Step const& s : script) {
    bool alive = true;
    switch (s.act) {
      case Act::Say: alive = writeAll(fd, s.text); break;
      case Act::Stall: alive = sleepUnlessClosed(fd, s.n); break;
      case Act::Hold: sleepUnlessClosed(fd, s.n); break;
      case Act::Drip:
        for (int i = 0; alive && i < s.n; ++i) alive = writeAll(fd, s.text) && sleepUnlessClosed(fd, 200);
        break;
      case Act::Flood:
        for (int sent = 0; alive && sent < s.n; sent += static_cast<int>(s.text.size()) * 4096) {
          std::string piece;
          for (int i = 0; i < 4096; ++i) piece += s.text;
          alive = writeAll(fd, piece);
        }
        break;
      case Act::Dial:
        for (auto h = heard.rbegin(); data < 0 && h != heard.rend(); ++h) data = dialAnnounced(*h);
        alive = data >= 0;
        if (alive && s.n == 1) waitForClose(data);
        break;
      case Act::Read: {
        std::string line;
        do {
          alive = readLine(fd, pending, line);
          if (alive) heard.push_back(line);
        } while (alive && !s.text.empty() && line != s.text);
        break;
      }
    }
    if (!alive) break;
  }
  if (data >= 0) ::close(data);
}

// One connection served by `script` (the end of the script closes it).
class HostilePeer {
 public:
  HostilePeer(int family, Script script)
      : m_script(std::move(script)), m_peer(family, [this](int fd) { play(fd, m_script, m_heard); }) {}
  unsigned short port() const { return m_peer.port(); }
  std::string host() const { return m_peer.host(); }

 private:
  Script m_script;
  std::vector<std::string> m_heard;
  Peer m_peer;  // last: its thread uses the members above
};

// A proxy in front of 127.0.0.1:`target` for one connection. After
// `cutAfter` bytes from the server it either closes both sides or, with
// `stall`, stops forwarding and holds both open until the client leaves.
class CuttingProxy {
 public:
  CuttingProxy(unsigned short target, long cutAfter, bool stall)
      : m_peer(AF_INET, [=, this](int client) { relay(client, target, cutAfter, stall); }) {}
  unsigned short port() const { return m_peer.port(); }
  // Bytes passed on from the server so far.
  long forwarded() const { return m_fromServer; }

 private:
  void relay(int client, unsigned short target, long cutAfter, bool stall) {
    int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_storage a = loopback(AF_INET, target);
    if (::connect(server, reinterpret_cast<sockaddr*>(&a), lengthOf(AF_INET)) != 0) return (void)::close(server);
    char buf[16384];
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
    while (std::chrono::steady_clock::now() < end) {
      if (m_fromServer >= cutAfter) {
        if (stall) waitForClose(client);
        break;
      }
      pollfd p[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
      if (::poll(p, 2, 100) <= 0) continue;
      if (p[0].revents) {
        ssize_t n = ::recv(client, buf, sizeof buf, 0);
        if (n <= 0 || !writeAll(server, std::string(buf, static_cast<size_t>(n)))) break;
      }
      if (p[1].revents) {
        ssize_t n = ::recv(server, buf, static_cast<size_t>(std::min<long>(sizeof buf, cutAfter - m_fromServer)), 0);
        if (n <= 0 || !writeAll(client, std::string(buf, static_cast<size_t>(n)))) break;
        m_fromServer += n;
      }
    }
    ::close(server);
  }
  std::atomic<long> m_fromServer{0};
  Peer m_peer;  // last: its thread uses the member above
};

inline int openDescriptors() {
  int n = 0;
  DIR* d = ::opendir("/proc/self/fd");
  while (d && ::readdir(d)) ++n;
  if (d) ::closedir(d);
  return n;
}

inline int entriesIn(std::string const& dir) {
  int n = 0;
  for ([[maybe_unused]] auto const& e : std::filesystem::directory_iterator(dir)) ++n;
  return n;
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace hostile
