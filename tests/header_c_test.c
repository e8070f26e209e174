/*
 * header_c_test.c - the public header compiled as C11 (with -pedantic), and a call made from C,
 * so that the C interface stays usable from C services.
 */
#include "analyticsdb.h"

/* Called from the C++ tests: the status of a call from C that must be refused. */
int adbtest_header_from_c(void) { return db_setDatabasePath(NULL); }
