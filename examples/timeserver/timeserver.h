// timeserver.h: a small TCP server that tells the time in any zone.
//
// Each line a client sends names a zone: "utc", "local", or a zone rules
// text such as "CET,-60 CEST;3,5,0/2,0,10,5,0/3,0". The answer is one line:
// the current date and time in that zone and the zone's name, e.g.
// "2026-11-24 21:30:05.123 CET".
#pragma once

#include <quenlib/quenlib.h>

#include <atomic>
#include <memory>
#include <string>

class TimeServer : public QuenLibA500::SIServer {
 public:
  TimeServer();
  ~TimeServer() override;

  void initialize() override;
  int readyToServe(int port) override;
  void stop() override;
  void uninitialize() override;
  QuenLibA500::SAnsiString processCommand(QuenLibA500::SAnsiString const& command) override;

  // The answer to one request line.
  static std::string Answer(std::string const& request);

 private:
  void serve(QuenLibA500::STerminatingThread& self);

  int m_configuredPort = 7070;
  std::string m_address = "127.0.0.1";
  int m_listener = -1;
  std::unique_ptr<QuenLibA500::STerminatingThread> m_loop;
  std::atomic<long> m_connections{0};
  std::atomic<long> m_open{0};
  std::atomic<long> m_answers{0};
};
