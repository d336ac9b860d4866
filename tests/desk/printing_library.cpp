// A library for host_test.cpp that is not a plug-in. When it is loaded, it prints a line like those of `mirado host`.
#include <cstdio>

[[gnu::constructor]] static void Print() { std::puts(R"({"reply":1})"); }
