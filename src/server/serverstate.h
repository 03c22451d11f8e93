// serverstate.h (internal): what the controller and the console share.
#pragma once

namespace QuenLibA500::serverstate {

// Asks every console loop (the listener and a session) to end soon; they
// poll this between waits of at most 200 ms.
void StopConsoles();
// Lets consoles run again (a later run in the same process).
void ResumeConsoles();
bool ConsolesStopping();

}  // namespace QuenLibA500::serverstate
