// db_fixture.cpp - shared test fixtures (see db_fixture.h).
#include "support/db_fixture.h"

#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace adbtest {

namespace {
constexpr std::string_view kPrefix = "analyticsDB: [";
constexpr size_t npos = std::string::npos;

// The tests' processes publish no queue counters in the host's stats folder; the test of the
// publication names a folder of its own.
[[maybe_unused]] const bool kNoStatsFolder = setenv("ANALYTICSDB_STATS_DIR", "", 1) == 0;
}  // namespace

std::string_view LogLine::message() const {
  const size_t end = text.starts_with(kPrefix) ? text.find("] ") : npos;
  return end == npos ? std::string_view(text) : std::string_view(text).substr(end + 2);
}

std::string LogLine::where() const {
  const size_t colon = text.starts_with(kPrefix) ? text.find(':', kPrefix.size()) : npos;
  return colon == npos ? std::string() : text.substr(kPrefix.size(), colon - kPrefix.size());
}

LogCapture::LogCapture(int level) {
  ryxLogSetHandler(&LogCapture::handle, this);
  ryxLogSetLevel(level);
}

LogCapture::~LogCapture() {
  ryxLogSetHandler(nullptr, nullptr);
  ryxLogSetLevel(RYX_LOG_NOTICE);
}

void LogCapture::handle(int level, const char *line, void *user) {
  auto *capture = static_cast<LogCapture *>(user);
  std::lock_guard<std::mutex> guard(capture->mutex_);
  capture->lines_.push_back(LogLine{level, line});
}

size_t LogCapture::count(int level, std::string_view message) const {
  return std::ranges::count_if(lines_, [&](const LogLine &line) {
    return line.level == level && line.message() == message;
  });
}

size_t LogCapture::countAt(int level) const {
  return std::ranges::count_if(lines_, [&](const LogLine &line) { return line.level == level; });
}

size_t LogCapture::countContaining(std::string_view part) const {
  return std::ranges::count_if(lines_, [&](const LogLine &l) { return l.text.find(part) != npos; });
}

std::string LogCapture::dump() const {
  std::ostringstream out;
  for (const LogLine &line : lines_) out << line.level << ' ' << line.text << '\n';
  return out.str();
}

RawDb::RawDb(const std::string &path) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << path << ": " << sqlite3_errmsg(db_);
  }
  // A test's own reads must not fail because the library is between statements.
  sqlite3_busy_timeout(db_, 2000);
}

RawDb::~RawDb() { sqlite3_close_v2(db_); }

int RawDb::tryExec(const std::string &sql) {
  return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
}

void RawDb::exec(const std::string &sql) {
  EXPECT_EQ(tryExec(sql), SQLITE_OK) << sql << ": " << sqlite3_errmsg(db_);
}

Rows RawDb::query(const std::string &sql, const std::vector<std::string> &parameters) {
  Rows rows;
  sqlite3_stmt *statement = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db_);
    return rows;
  }
  for (size_t i = 0; i < parameters.size(); ++i) {
    sqlite3_bind_text(statement, static_cast<int>(i + 1), parameters[i].data(),
                      static_cast<int>(parameters[i].size()), SQLITE_TRANSIENT);
  }
  while (sqlite3_step(statement) == SQLITE_ROW) {
    Row row;
    for (int c = 0; c < sqlite3_column_count(statement); ++c) {
      const unsigned char *text = sqlite3_column_text(statement, c);
      row.push_back(text != nullptr ? Cell(reinterpret_cast<const char *>(text)) : std::nullopt);
    }
    rows.push_back(std::move(row));
  }
  sqlite3_finalize(statement);
  return rows;
}

Cell RawDb::scalar(const std::string &sql) {
  const Rows rows = query(sql);
  return rows.empty() || rows[0].empty() ? std::nullopt : rows[0][0];
}

std::vector<std::string> RawDb::columns(const std::string &table) {
  std::vector<std::string> names;
  for (Row r : query("SELECT name FROM pragma_table_info(?)", {table})) names.push_back(*r[0]);
  return names;
}

bool RawDb::tableExists(const std::string &table) {
  return !query("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?", {table}).empty();
}

BusyHolder::BusyHolder(const std::string &path) : db_(std::in_place, path) {
  db_->exec("BEGIN EXCLUSIVE");
}

BusyHolder::~BusyHolder() { release(); }

void BusyHolder::release() {
  if (db_) db_->tryExec("COMMIT");
  db_.reset();
}

void DbTest::SetUp() {
  tempDir_ = (std::filesystem::temp_directory_path() / "adbtest.XXXXXX").string();
  ASSERT_NE(mkdtemp(tempDir_.data()), nullptr);
  dbPath_ = tempDir_ + "/analytics.db";
  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_setDatabasePath(dbPath_.c_str()), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_setProfileMarkerPath((tempDir_ + "/db_profile").c_str()), DB_STATUS_SUCCESS);
  alterSchema = 0;
  // Most tests hold the file busy on purpose and want the busy outcome at once; the tests of
  // waiting set their own.
  ASSERT_EQ(db_setBusyWait(0, 0), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_initQueue(), 0);
  log_.emplace(RYX_LOG_DEBUG);
}

void DbTest::TearDown() {
  EXPECT_EQ(db_freeQueue(), 0);
  EXPECT_EQ(queueCount, 0) << "the queue's count disagrees with its nodes";
  raw_.reset();
  EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  log_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(tempDir_, ignored);
}

void DbTest::createInventoryTables() {
  for (auto create : {db_createDeviceInfoTable, db_createMeshTopoTable, db_createClientsTable,
                      db_createSubscriberInfoTable, db_createCmaInfoTable,
                      db_createDeviceThresholdTable}) {
    ASSERT_EQ(create(), DB_STATUS_SUCCESS);
  }
}

void DbTest::createSeriesTables() {
  ASSERT_EQ(db_createPrimitiveRssiTable(288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthRxTable(288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthTxTable(288), DB_STATUS_SUCCESS);
  for (uint32_t day = 1; day <= 7; ++day) {
    for (auto create : {db_createRssiTab, db_createRxBandWidth, db_createTxBandWidth}) {
      ASSERT_EQ(create(day, 288), DB_STATUS_SUCCESS);
    }
  }
}

RawDb &DbTest::raw() {
  if (!raw_) raw_.emplace(dbPath_);
  return *raw_;
}

Values::Values(std::initializer_list<const char *> values) { for (auto value : values) add(value); }

Values::Values(const std::vector<std::string> &values) {
  for (const std::string &value : values) add(value.c_str());
}

Values::Values(const std::vector<Cell> &values) {
  for (const Cell &value : values) add(value ? value->c_str() : nullptr);
}

void Values::add(const char *value) {
  storage_.push_back(value != nullptr ? value : "");
  pointers_.push_back(value != nullptr ? storage_.back().data() : nullptr);
}

WriteRequestNode *queueHead() { return __atomic_load_n(&writeRequestQueue, __ATOMIC_ACQUIRE); }

int32_t queueLength() {
  int32_t length = 0;
  for (WriteRequestNode *node = queueHead(); node != nullptr; node = node->next) ++length;
  return length;
}

std::vector<Cell> nodeValues(const WriteRequestNode &node) {
  std::vector<Cell> values;
  for (int32_t i = 0; i < node.fieldCount && i < DB_QUEUE_FIELD_SLOTS; ++i) {
    values.push_back(node.fieldValues[i] != nullptr ? Cell(node.fieldValues[i]) : std::nullopt);
  }
  return values;
}

}  // namespace adbtest
