#include "preview/preview.h"

int main(int argc, char **argv) { return installer::preview::main(argc, argv); }
