// quen-timeserver: the sample server. Run it in the foreground:
//
//   quen-timeserver -pidfile /tmp/timeserver.pid -serverconsole -consoleport 7071
//
// under systemd after "quen-timeserver -install", or stop it with SIGTERM.
#include "timeserver.h"

using namespace QuenLibA500;

int main(int argc, char** argv) {
  CParamLineArgs args(argc, argv);
  SInstrumentationInitialize tracing(args);
  CSmartRefCountPtr<SIServer> server(new TimeServer);
  SIServerController controller("quen-timeserver", "quen sample time server", "Tells the time in any zone", server);
  controller.run(argc, argv);
  return 0;
}
