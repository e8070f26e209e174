/*
 * device_roundtrip.c - the smallest use of libanalyticsdb from C.
 *
 * Creates a device table in a local database file (./analytics-example.db unless a path is
 * given), writes one device row twice - an insert, then an update of the same MAC address in
 * another letter case - and reads the row back.
 */
#include <stdio.h>

#include "analyticsdb.h"

static char *fields[] = {"MAC_S", "HOST_S", "RSSI", "ACTIVE"};

int main(int argc, char **argv) {
  const char *path = argc > 1 ? argv[1] : "analytics-example.db";
  if (db_setDatabasePath(path) != DB_STATUS_SUCCESS) {
    fprintf(stderr, "unusable database path: %s\n", path);
    return 1;
  }
  int32_t status = db_writeQuery(
      "CREATE TABLE IF NOT EXISTS DEVICES (MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, "
      "HOST_S TEXT, RSSI INTEGER, ACTIVE INTEGER)");
  if (status != DB_STATUS_SUCCESS) {
    fprintf(stderr, "cannot create the table (status %d)\n", (int)status);
    return 1;
  }

  char *first[] = {"aa:bb:cc:dd:ee:01", "kitchen-speaker", "-61", "1"};
  char *second[] = {"AA:BB:CC:DD:EE:01", "Kitchen speaker (Ann's)", "-48", NULL};
  int32_t inserted = db_writeTable("DEVICES", "MAC_S", " LIKE ", fields, first, 4);
  int32_t updated = db_writeTable("DEVICES", "MAC_S", " LIKE ", fields, second, 4);
  printf("insert: status %d, update: status %d\n", (int)inserted, (int)updated);

  char **cells = NULL;
  int32_t rows = 0;
  int32_t columns = 0;
  status = db_readTableContent("SELECT MAC_S, HOST_S, RSSI, ACTIVE FROM DEVICES", &cells, &rows,
                               &columns);
  if (status != DB_STATUS_SUCCESS) {
    fprintf(stderr, "cannot read the table (status %d)\n", (int)status);
    return 1;
  }
  for (int32_t c = 0; c < columns; ++c) printf("%-20s", cells[c]);
  printf("\n");
  for (int32_t r = 1; r <= rows; ++r) {
    for (int32_t c = 0; c < columns; ++c) {
      const char *cell = cells[r * columns + c];
      printf("%-20s", cell != NULL ? cell : "NULL");
    }
    printf("\n");
  }
  db_freeResult(&cells);
  db_closeDbConnection();
  return (inserted == DB_STATUS_SUCCESS && updated == DB_STATUS_SUCCESS) ? 0 : 1;
}
