/*
 * header_c_test.c - the public header compiled as C11 (with -pedantic), and a few calls made
 * from C, so that the C interface stays usable from C services.
 */
#include "analyticsdb.h"

/* Called from the C++ tests: returns 0 when the C view of the interface is as expected. */
int adbtest_header_from_c(void) {
  char *values[] = {"aa:bb:cc:dd:ee:ff", NULL};
  int32_t (*writer)(const char *, const char *, const char *, char **, char **, int32_t) =
      db_writeTable;
  if (writer == 0 || values[1] != NULL) return 1;
  if (DB_STATUS_SUCCESS != 0 || DB_STATUS_OPEN_FAILED != 6 || DB_STATUS_QUEUE_CHECK != -1) return 2;
  if (RYX_LOG_ERROR != 3 || RYX_LOG_DEBUG != 7) return 3;
  if (sizeof(foreignKeyEanbled) != 1 || sizeof(alterSchema) != 1) return 4;
  return db_setDatabasePath(NULL) == DB_STATUS_FAILURE ? 0 : 5;
}
