#include "support/db_fixture.h"
extern "C" int adbtest_header_from_c(void);
TEST(Header, UsableFromC) { EXPECT_EQ(adbtest_header_from_c(), 0); }
