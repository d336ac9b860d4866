#include "server/serve.h"

int main(int argc, char** argv) { return desk::ServeDesk(argc, argv); }
