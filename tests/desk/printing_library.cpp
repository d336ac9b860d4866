// Not a plug-in: when it is loaded, it prints what looks like output of its host.
#include <cstdio>

[[gnu::constructor]] static void Print() { std::puts(R"({"reply":1})"); }
