// siconsole.h: the diagnostic console of a server.
//
// Started with the option "serverconsole", the controller listens on
// "consoleport" (IPv4, or IPv6 with "consolefamily" 6) on the loopback
// address and serves one operator at a time, with `nc` or `telnet`:
//
//   $ nc 127.0.0.1 7071
//     WARNING ... WARNING ... WARNING
//     This "console" mode should only be used by qualified Tolvane
//     ...
//   timeserver @ your command: status
//   Warning: Any command entered may cause irreparable data corruption or data loss.
//   ... the server's answer ...
//   timeserver @ your command: quit
//
// "quit" closes the connection, "debug" turns the service's debug flag on
// and off; every other line goes to SIServer::processCommand. A client that
// disconnects in the middle of a line ends only its own session.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/refcount.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class SIServer;

class QUENLIB_API SIConsole {
 public:
  // name: the prompt's name; the console reads and writes descriptor fd.
  SIConsole(char const* name, CSmartRefCountPtr<SIServer> server, SAnsiString const& logName, int fd = 0);
  virtual ~SIConsole();
  SIConsole(SIConsole const&) = delete;
  SIConsole& operator=(SIConsole const&) = delete;

  // The read-command loop; returns on "quit", end of input or shutdown.
  virtual void run();

  // The banner lines, exactly as shown.
  static char const* const kBanner[4];
  static char const* const kCommandWarning;

 private:
  bool readLine(SAnsiString& line);
  bool writeText(char const* text, size_t length);
  bool writeLine(SAnsiString const& text);

  SAnsiString m_name;
  CSmartRefCountPtr<SIServer> m_server;
  SAnsiString m_logName;
  int m_fd;
};

}  // namespace QuenLibA500
