#include "installer/installer.h"

int main(int argc, char **argv) { return installer::main(static_cast<unsigned>(argc), argv); }
