#include "check/check.h"

int main(int argc, char **argv) { return installer::check_main(argc, argv); }
