// The schema version: reading, rises with their translations and defaults, storing via the queue.
#include "support/api_cases.h"

namespace {

class Version : public adbtest::ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    ASSERT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
  }
};

}  // namespace

TEST_F(Version, RisesTranslateBandsFromVersions1And2AndFillPortableOtherChangesDoNothing) {
  // The schema upgrade flag a change sets, then "band:portable" per device in rowid order.
  const struct {
    int32_t from, to;
    const char *after;
  } changes[] = {{3, 3, "0 Auto:null,2.4GHz:0,5GHz:null,6GHz:1"},
                 {4, 2, "0 Auto:null,2.4GHz:0,5GHz:null,6GHz:1"},
                 {1, 4, "1 NA:1,2.4:0,5:1,6GHz:1"},
                 {2, 4, "1 NA:1,2.4:0,5:1,6GHz:1"},
                 {0, 1, "1 Auto:1,2.4GHz:0,5GHz:1,6GHz:1"},
                 {3, 4, "1 Auto:1,2.4GHz:0,5GHz:1,6GHz:1"}};
  for (const auto &change : changes) {
    SCOPED_TRACE(std::to_string(change.from) + " to " + std::to_string(change.to));
    raw().exec("DELETE FROM DEVICEINFO; INSERT INTO DEVICEINFO(MAC_S, PREFERRED_BAND_S, PORTABLE) "
               "VALUES ('a','Auto',NULL),('b','2.4GHz',0),('c','5GHz',NULL),('d','6GHz',1);");
    alterSchema = 0;
    EXPECT_EQ(db_setDBVersion(change.from, change.to), DB_STATUS_SUCCESS);
    EXPECT_EQ(raw().scalar("SELECT " + std::to_string(alterSchema) + " || ' ' || group_concat("
                           "PREFERRED_BAND_S || ':' || ifnull(PORTABLE,'null')) FROM DEVICEINFO"),
              change.after);
  }
  EXPECT_TRUE(
      logged(RYX_LOG_INFO, "No DB version change/ lesser version change currVer [4] newVer [2]\n"));
  EXPECT_TRUE(logged(RYX_LOG_NOTICE, "DB translations for old version [2] completed."));
  EXPECT_TRUE(log().has(RYX_LOG_NOTICE, "DB :Portable Default setting on migration done\n"));
  EXPECT_TRUE(logged(RYX_LOG_INFO, "DB translations not needed for old version [0]"));
  EXPECT_TRUE(logged(RYX_LOG_INFO, "DB Version is updated to [4] from version [3]"));

  // Without DEVICEINFO the default cannot be filled: the rise reports it.
  raw().exec("DROP TABLE DEVICEINFO");
  EXPECT_EQ(db_setDBVersion(4, 5), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "DB :Portable Default setting on migration failed\n"));
}

TEST_F(Version, ANewFileIsVersion0AndStoringGoesThroughTheQueue) {
  int32_t version = -7;
  EXPECT_EQ(db_readDBVersion(&version), DB_STATUS_SUCCESS);
  EXPECT_EQ(version, 0);
  EXPECT_EQ(db_updateDBVersion(5), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_readDBVersion(&version), DB_STATUS_SUCCESS);
  EXPECT_EQ(version, 5);

  EXPECT_EQ(whileBusy([] { return db_updateDBVersion(6); }), DB_STATUS_BUSY);  // parked
  // A later version waits behind the parked one, so the file never goes 7 then 6.
  EXPECT_EQ(db_updateDBVersion(7), DB_STATUS_BUSY);
  EXPECT_EQ(queueCount, 2);
  EXPECT_EQ(raw().scalar("PRAGMA user_version"), "5");
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("PRAGMA user_version"), "7");
  EXPECT_EQ(queueCount, 0);

  // A queued version without its value can never be replayed: dropped, not left to stall.
  adbtest::Values noVersion{nullptr, nullptr};
  ASSERT_EQ(db_manageQueue(DB_STATUS_BUSY, 0, noVersion.data(), 2, "VERSION"), 0);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(queueCount, 0);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Queue: dropped func[0] Table[VERSION] Key[NULL]: its values "
                                    "give no statement\n"));

  // A failed read leaves the caller's value alone.
  EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_setDatabasePath((tempDir_ + "/no/such/dir.db").c_str()), DB_STATUS_SUCCESS);
  version = 42;
  EXPECT_EQ(db_readDBVersion(&version), DB_STATUS_OPEN_FAILED);
  EXPECT_EQ(version, 42);
}
