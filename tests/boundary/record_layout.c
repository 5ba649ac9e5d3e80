/* The assertions of record_layout.h in C11. */
#include "tests/boundary/record_layout.h"
