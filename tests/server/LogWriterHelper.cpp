// Writes numbered lines to a log file, for the test of two processes logging at once.

#include <cstdlib>
#include <string>

#include "platform/Text.h"
#include "server/Log.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  kestrium::Log log;
  log.open(kestrium::platform::toUtf16(argv[1]), false);
  const int lines = std::atoi(argv[2]);
  for (int i = 0; i < lines; ++i) log(u"writer %S line %d of a few words\n", argv[3], i);
  log.close();
  return 0;
}
