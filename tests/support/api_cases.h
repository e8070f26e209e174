// api_cases.h - what the tests of the public API share:
//
//  - ApiTest: DbTest that looks the library's own lines up by their text after the
//    "[analyticsDB] " tag, so that a test spells each expected line once, exactly.
//  - readKeepingList: a list read into a variable holding a sentinel, which a read that fails or
//    finds nothing must leave alone.
#ifndef ANALYTICSDB_TEST_API_CASES_H
#define ANALYTICSDB_TEST_API_CASES_H

#include <string>

#include "support/db_fixture.h"

namespace adbtest {

class ApiTest : public DbTest {
 protected:
  // Lines at `level` whose message is "[analyticsDB] " followed by `text`.
  size_t logged(int level, const std::string &text) {
    return log().count(level, "[analyticsDB] " + text);
  }
};

// The status of `read(&list, &rows)` for a list that holds a sentinel, which must survive.
template <typename Record, typename Read>
int32_t readKeepingList(Read read) {
  Record *sentinel[1] = {nullptr};
  Record **list = sentinel;
  int32_t rows = -1;
  int32_t status = read(&list, &rows);
  EXPECT_EQ(list, sentinel);
  return status;
}

}  // namespace adbtest

#endif
