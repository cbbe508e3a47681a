#pragma once

namespace kestrium {

// The capture server's entry: start-up, the main loop and the teardown. Returns
// the process's exit status.
int runServer(int argc, char** argv);

}  // namespace kestrium
