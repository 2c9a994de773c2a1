#include "check/check.h"

int main(int argc, char **argv) { return installer::check::main(argc, argv); }
