#include "client/ClientMain.h"
#include "platform/System.h"

int main(int argc, char** argv) {
  return kestrium::client::runClient(kestrium::platform::commandArguments(argc, argv));
}
