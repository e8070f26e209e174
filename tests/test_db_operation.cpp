// The access core: lazy connection, paths, status mapping of every SQLite outcome, profiling.
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "support/api_cases.h"

extern "C" int adbtest_header_from_c(void);

namespace {

// Read when the program loads, before any test opens a connection or sets a flag: a new process
// alters no old table until told to, and claims no foreign keys before its first open.
const uint8_t kAlterSchemaAtLoad = alterSchema;
const uint8_t kForeignKeysAtLoad = foreignKeyEanbled;

class Operation : public adbtest::ApiTest {
 protected:
  void createDevices() {
    ASSERT_EQ(db_open(), DB_STATUS_SUCCESS);
    const char *sql = "CREATE TABLE T (MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, V INTEGER)";
    ASSERT_EQ(db_write(sql), DB_STATUS_SUCCESS);
  }
};

}  // namespace

TEST(Header, UsableFromCWithItsFlagsClearAtLoad) {
  EXPECT_EQ(adbtest_header_from_c(), DB_STATUS_FAILURE);
  EXPECT_EQ(kAlterSchemaAtLoad, 0);
  EXPECT_EQ(kForeignKeysAtLoad, 0);
  db_freeTableResult(nullptr);  // nothing to free
}

TEST_F(Operation, OpensLazilyOnceAndAgainAfterCloseAndRefusesBadPaths) {
  EXPECT_EQ(db_close(), DB_STATUS_SUCCESS);  // nothing open
  EXPECT_EQ(db_setDatabasePath(nullptr), DB_STATUS_FAILURE);
  EXPECT_EQ(db_setDatabasePath(""), DB_STATUS_FAILURE);
  EXPECT_EQ(db_setDatabasePath(std::string(256, 'a').c_str()), DB_STATUS_FAILURE);
  EXPECT_EQ(db_setProfileMarkerPath(nullptr), DB_STATUS_FAILURE);
  EXPECT_EQ(db_setProfileMarkerPath(std::string(300, 'b').c_str()), DB_STATUS_FAILURE);
  EXPECT_EQ(db_setDatabasePath(("/" + std::string(254, 'a')).c_str()), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_setDatabasePath(dbPath().c_str()), DB_STATUS_SUCCESS);

  // The connection is kept (the second open says so) and dropped by a close (the next open runs
  // its set-up again).
  EXPECT_EQ(db_open(), DB_STATUS_SUCCESS);
  EXPECT_EQ(foreignKeyEanbled, 1);
  EXPECT_EQ(logged(RYX_LOG_DEBUG, "Already connected to DB\n"), 0u);
  EXPECT_EQ(db_open(), DB_STATUS_SUCCESS);
  EXPECT_EQ(logged(RYX_LOG_DEBUG, "Already connected to DB\n"), 1u);
  // The path cannot change under an open connection.
  EXPECT_EQ(db_setDatabasePath((tempDir_ + "/other.db").c_str()), DB_STATUS_FAILURE);

  EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  log().clear();
  EXPECT_EQ(db_open(), DB_STATUS_SUCCESS);
  EXPECT_EQ(logged(RYX_LOG_DEBUG, "WRITE QUERY: PRAGMA page_size = 10240"), 1u);
  EXPECT_EQ(logged(RYX_LOG_DEBUG, "WRITE QUERY: PRAGMA foreign_keys = ON"), 1u);

  // A folder that does not exist: 6, and the connection stays closed.
  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_setDatabasePath((tempDir_ + "/missing/dir/analytics.db").c_str()),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(db_open(), DB_STATUS_OPEN_FAILED);
  EXPECT_EQ(database_connection, nullptr);
  EXPECT_TRUE(logged(RYX_LOG_ERROR,
                     "Opening connection failed ret 14 message: unable to open database file\n"))
      << log().dump();
}

TEST_F(Operation, StatusOfEveryOutcomeAndABusyDatabaseAtOnce) {
  createDevices();
  EXPECT_EQ(db_write("INSERT INTO T VALUES('aa', 1)"), DB_STATUS_SUCCESS);

  // Duplicate key: 4, and only a debug line, since insert-or-update expects it.
  log().clear();
  EXPECT_EQ(db_write("INSERT INTO T VALUES('AA', 2)"), DB_STATUS_CONSTRAINT);
  EXPECT_EQ(log().countAt(RYX_LOG_ERROR), 0u) << log().dump();
  EXPECT_EQ(log().countContaining("WRITE Error: UNIQUE constraint failed: T.MAC_S ret : 19"), 1u);

  // Another constraint (NOT NULL) is an error line and still 4.
  log().clear();
  EXPECT_EQ(db_write("INSERT INTO T VALUES(NULL, 2)"), DB_STATUS_CONSTRAINT);
  EXPECT_EQ(log().countAt(RYX_LOG_ERROR), 1u);

  // A missing table is 5 for writes and reads, with its own line.
  EXPECT_EQ(db_write("INSERT INTO NOPE VALUES(1)"), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "WRITE Table doesnt exist\n"));
  char **cells = nullptr;
  int32_t rows = -1, columns = -1;
  EXPECT_EQ(db_read("SELECT * FROM NOPE", &cells, &rows, &columns), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "READ ERROR : no such table: NOPE ret : 1\n"));
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "READ Table doesnt exist\n"));
  EXPECT_EQ(cells, nullptr);

  // Any other error is 1.
  EXPECT_EQ(db_write("THIS IS NOT SQL"), DB_STATUS_FAILURE);

  // A read that matches nothing is a success with no rows, header included.
  ASSERT_EQ(db_read("SELECT * FROM T WHERE V > 100", &cells, &rows, &columns), DB_STATUS_SUCCESS);
  EXPECT_EQ(rows, 0);
  db_freeResult(&cells);

  // A database held by another connection: 3 at once, for writes and reads.
  std::optional<adbtest::BusyHolder> holder(std::in_place, dbPath());
  EXPECT_EQ(db_write("INSERT INTO T VALUES('bb', 1)"), DB_STATUS_BUSY);
  EXPECT_EQ(db_read("SELECT * FROM T", &cells, &rows, &columns), DB_STATUS_BUSY);
  EXPECT_EQ(cells, nullptr);

  // With a wait, a write polls the held file and goes through soon after it is let go, not at
  // the end of its wait: the other connection takes the file back if the write has not landed
  // 600 ms after the release, well before a write that slept its whole wait would look again.
  ASSERT_EQ(db_setBusyWait(999, 0), DB_STATUS_SUCCESS);
  std::atomic<bool> landed{false};
  std::thread other([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    holder.reset();
    for (int i = 0; i < 60 && !landed; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!landed) holder.emplace(dbPath());
  });
  EXPECT_EQ(db_write("INSERT INTO T VALUES('bb', 1)"), DB_STATUS_SUCCESS);
  landed = true;
  other.join();
}

TEST_F(Operation, ProfilesStatementsOnlyWhileTheMarkerExists) {
  createDevices();
  log().clear();
  EXPECT_EQ(db_write("INSERT INTO T VALUES('cc', 1)"), DB_STATUS_SUCCESS);
  EXPECT_EQ(log().countContaining("Profile"), 0u);

  std::ofstream(tempDir_ + "/db_profile") << "on";
  log().clear();
  EXPECT_EQ(db_write("INSERT INTO T VALUES('cc', 1)"), DB_STATUS_CONSTRAINT);  // measured too
  ASSERT_EQ(log().countContaining("Profile"), 1u) << log().dump();
  auto isProfile = [](const adbtest::LogLine &l) { return l.text.find("Profile") != l.text.npos; };
  auto line = std::ranges::find_if(log().lines(), isProfile);
  EXPECT_EQ(line->level, RYX_LOG_INFO);
  EXPECT_EQ(line->where(), "db_operation db_write");
  // The figures vary: each is masked.
  std::string text(line->message());
  for (const std::string figure : {"Time [", "ticks ["}) {
    const size_t from = text.find(figure) + figure.size();
    text.replace(from, text.find(']', from) - from, "n");
  }
  EXPECT_EQ(text, "[analyticsDB] Profile : Time [n] millisecs  Clock ticks [n] API "
                  "[INSERT INTO T VALUES('cc', 1)]");

  log().clear();
  char **cells = nullptr;
  int32_t rows = 0, columns = 0;
  ASSERT_EQ(db_read("SELECT * FROM T", &cells, &rows, &columns), DB_STATUS_SUCCESS);
  db_freeResult(&cells);
  EXPECT_EQ(log().countContaining("] millisecs Clock ticks ["), 1u);  // a read's own line

  uint32_t ticks = 0xFFFFFFFFu;
  EXPECT_EQ(db_getCpuTime(&ticks), 0);
  EXPECT_NE(ticks, 0xFFFFFFFFu);
}
