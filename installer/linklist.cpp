#include "installer/linklist.h"

// The list is a template and lives in its header. This source compiles that header by itself.
