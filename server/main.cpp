#include "server/ServerMain.h"

int main(int argc, char** argv) { return kestrium::runServer(argc, argv); }
