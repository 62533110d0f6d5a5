#include "kxdb/KxDBDataRowKey.h"

#include <gtest/gtest.h>

TEST(KxDBDataRowKey, KeepsOnlyTheNameWhateverTheInteger) {
  KxDBDataRowKey key("app", 5);
  EXPECT_EQ(key.appName, "app");
  EXPECT_EQ(key.intcol1, KXDB_INTCOL_UNSET);
  EXPECT_TRUE(key.rsvdName.empty());
}
