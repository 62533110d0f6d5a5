#include "FetchPreferredApps.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"

namespace {

using UserTable = KxDatabase<_vorak_User_Launched_Data>;
using SlotTable = KxDatabase<_vorak_Favorite_Time_Slot_Data>;

std::tm at(int wday, int hour, int minute) {
  std::tm t{};
  t.tm_wday = wday;
  t.tm_hour = hour;
  t.tm_min = minute;
  return t;
}

TEST(FetchPreferredApps, SlotKeysFollowWeekdayAndHour) {
  EXPECT_EQ(FetchPreferredApps::timeSlotKey(at(6, 11, 59)), "week_end_1");
  EXPECT_EQ(FetchPreferredApps::timeSlotKey(at(6, 12, 0)), "week_end_2");
  EXPECT_EQ(FetchPreferredApps::timeSlotKey(at(0, 20, 59)), "week_end_3");
  EXPECT_EQ(FetchPreferredApps::timeSlotKey(at(0, 21, 0)), "week_end_4");
  EXPECT_EQ(FetchPreferredApps::timeSlotKey(at(1, 3, 59)), "week_day_4");
  EXPECT_EQ(FetchPreferredApps::timeSlotKey(at(1, 4, 0)), "week_day_1");
  EXPECT_EQ(FetchPreferredApps::timeSlotKey(at(5, 17, 0)), "week_day_3");
}

class FavouritesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mUser.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mStartProc.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mSlots.KxDatabaseInit(), KXDB_SUCCESS);
  }

  static void addUser(UserTable& table, const std::string& app, int value = 1) {
    UserTable::vecT rows = table.allocateDR(1);
    rows[0]->appName = app;
    rows[0]->blob.value = value;
    table.writeDeallocateDR(rows);
  }

  void addSlot(const std::string& slot, const std::string& apps) {
    SlotTable::vecT rows = mSlots.allocateDR(1);
    rows[0]->appName = slot;
    std::memset(rows[0]->blob.favoriteApps, 0, sizeof rows[0]->blob.favoriteApps);
    std::strcpy(rows[0]->blob.favoriteApps, apps.c_str());
    mSlots.writeDeallocateDR(rows);
  }

  // Every row of a user-launched table as "app=value", in row order.
  static std::vector<std::string> users(UserTable& table) {
    KxDBDataRowKey all;
    UserTable::vecT rows = table.readAllocateDR(all, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
    std::vector<std::string> out;
    for (auto* r : rows) out.push_back(r->appName + "=" + std::to_string(r->blob.value));
    table.deallocateDR(rows);
    return out;
  }

  // Every slot row as "key:apps", in row order.
  std::vector<std::string> slots() {
    KxDBDataRowKey all;
    SlotTable::vecT rows = mSlots.readAllocateDR(all, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
    std::vector<std::string> out;
    for (auto* r : rows) out.push_back(r->appName + ":" + r->blob.favoriteApps);
    mSlots.deallocateDR(rows);
    return out;
  }

  // Runs the rule and returns the slot key it used (retrying across a slot
  // boundary, which would make the key ambiguous).
  std::string populate() {
    for (;;) {
      std::string before = currentSlot();
      FetchPreferredApps().populateFavoriteApps(&mUser, &mStartProc, &mSlots);
      if (currentSlot() == before) return before;
    }
  }

  static std::string currentSlot() {
    std::time_t now = std::time(nullptr);
    std::tm local;
    localtime_r(&now, &local);
    return FetchPreferredApps::timeSlotKey(local);
  }

  UserTable mUser{0, "", "User"};
  UserTable mStartProc{0, "", "StartProc"};
  SlotTable mSlots{0, "", "FavTimeSlot"};
};

TEST_F(FavouritesTest, AppsOfBothUserTablesBecomeTheCurrentSlotsFavourites) {
  addUser(mUser, "com.b");
  addUser(mUser, "com.a");
  addUser(mStartProc, "com.c");
  addUser(mStartProc, "com.a");
  std::string slot = populate();
  EXPECT_EQ(slots(), std::vector<std::string>{slot + ":com.a/com.b/com.c"});
}

TEST_F(FavouritesTest, FavouritesMissingFromTheFirstTableGetTheirRowFromTheSecond) {
  addUser(mUser, "com.a", 10);
  addUser(mStartProc, "com.a", 11);
  addUser(mStartProc, "com.b", 20);
  addUser(mStartProc, "com.twice", 30);
  addUser(mStartProc, "com.twice", 31);
  populate();
  EXPECT_EQ(users(mUser), (std::vector<std::string>{"com.a=10", "com.b=20"}))
      << "an existing row keeps its pid; a name with two rows has no pid to take";
  EXPECT_EQ(users(mStartProc).size(), 4u) << "the second table is only read";
}

TEST_F(FavouritesTest, TheSlotKeepsEarlierFavouritesInPlaceAndOtherSlotsAlone) {
  std::string slot = currentSlot();
  std::string other = slot == "week_day_1" ? "week_end_1" : "week_day_1";
  addSlot(other, "com.old");
  addSlot(slot, "com.stale");
  addUser(mUser, "com.a");
  slot = populate();
  addUser(mStartProc, "com.b");
  slot = populate();
  std::vector<std::string> rows = slots();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], other + ":com.old");
  EXPECT_EQ(rows[1], slot + ":com.a/com.b/com.stale");
}

TEST_F(FavouritesTest, NothingIsWrittenWithoutApplicationsAndLongListsStayWithinTheRow) {
  FetchPreferredApps().populateFavoriteApps(&mUser, nullptr, &mSlots);
  EXPECT_TRUE(slots().empty());
  FetchPreferredApps().populateFavoriteApps(&mUser, &mStartProc, nullptr);

  for (int i = 0; i < 40; ++i) addUser(mUser, "com.app" + std::to_string(100 + i) + std::string(100, 'x'));
  populate();
  std::vector<std::string> rows = slots();
  ASSERT_EQ(rows.size(), 1u);
  std::string list = rows[0].substr(rows[0].find(':') + 1);
  EXPECT_LT(list.size(), 4096u);
  EXPECT_EQ(list.back(), 'x');  // whole names only
  EXPECT_EQ(list.find("com.app139"), std::string::npos);
}

}  // namespace
