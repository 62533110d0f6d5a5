// The host's favourites: a prediction from the launch history per time slot
// (regular on enough recent days of the same kind, at most a few, forgotten
// when the habit stops), written into the slot table for the kill action.
#include "FetchPreferredApps.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Properties.h"
#include "WallClock.h"
#include "kxdb/KxDatabase.h"
#include "kxdb/VorakRecords.h"
#include "support/PutRows.h"

namespace {

using UserTable = KxDatabase<_vorak_User_Launched_Data>;
using SlotTable = KxDatabase<_vorak_Favorite_Time_Slot_Data>;
using Favourites = std::map<std::string, std::vector<std::string>>;

std::tm at(int wday, int hour, int minute) {
  std::tm t{};
  t.tm_wday = wday;
  t.tm_hour = hour;
  t.tm_min = minute;
  return t;
}

TEST(FetchPreferredApps, SlotKeysFollowWeekdayAndHour) {
  const std::pair<std::tm, const char*> cases[] = {
      {at(6, 11, 59), "week_end_1"}, {at(6, 12, 0), "week_end_2"}, {at(0, 20, 59), "week_end_3"},
      {at(0, 21, 0), "week_end_4"},  {at(1, 3, 59), "week_day_4"}, {at(1, 4, 0), "week_day_1"},
      {at(5, 17, 0), "week_day_3"},
  };
  for (const auto& [t, key] : cases) EXPECT_EQ(FetchPreferredApps::timeSlotKey(t), key);
}

// Local time on day `day` of a week that begins on Monday 2026-11-23.
std::time_t when(int day, int hour, int minute = 0) {
  std::tm t{};
  t.tm_year = 2026 - 1900;
  t.tm_mon = 10;
  t.tm_mday = 23 + day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_isdst = -1;
  return std::mktime(&t);
}

class FavouritesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FetchPreferredApps::clearHistory();
    ASSERT_EQ(mUser.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mStartProc.KxDatabaseInit(), KXDB_SUCCESS);
    ASSERT_EQ(mSlots.KxDatabaseInit(), KXDB_SUCCESS);
  }
  void TearDown() override {
    FetchPreferredApps::clearHistory();
    for (const char* p : {FetchPreferredApps::kDaysProperty, FetchPreferredApps::kMinDaysProperty,
                          FetchPreferredApps::kMaxAppsProperty})
      kxhost::clearProperty(p);
    kxhost::setWallClock(nullptr);
  }

  // Launches: (app, day, hour).
  static void launch(const std::vector<std::tuple<std::string, int, int>>& launches) {
    for (const auto& [app, day, hour] : launches) FetchPreferredApps::noteLaunch(app, when(day, hour));
  }

  // Every row of a user-launched table as "app=value", in row order.
  static std::vector<std::string> users(UserTable& table) {
    return kxtest::readRows(table, KxDBDataRowKey(),
                            [](const auto& r) { return r.appName + "=" + std::to_string(r.blob.value); });
  }

  // Every slot row as "key:apps", in row order.
  std::vector<std::string> slots() {
    return kxtest::readRows(mSlots, KxDBDataRowKey(),
                            [](const auto& r) { return r.appName + ":" + r.blob.favoriteApps; });
  }

  // Populates as a learning run on day `day` at `hour` would.
  void populateAt(int day, int hour) {
    static std::time_t sNow;
    sNow = when(day, hour);
    kxhost::setWallClock([](time_t* out) {
      if (out != nullptr) *out = sNow;
      return sNow;
    });
    FetchPreferredApps().populateFavoriteApps(&mUser, &mStartProc, &mSlots);
  }

  UserTable mUser{0, "", "User"};
  UserTable mStartProc{0, "", "StartProc"};
  SlotTable mSlots{0, "", "FavTimeSlot"};
};

TEST_F(FavouritesTest, AnAppIsAFavouriteOfASlotOnlyWhenLaunchedThereOnEnoughRecentDaysOfItsKind) {
  struct Case {
    const char* what;
    std::vector<std::tuple<std::string, int, int>> launches;
    int day, hour;  // when predicted
    Favourites expected;
  };
  const std::vector<Case> cases = {
      {"one launch makes no habit, in any slot", {{"com.a", 0, 8}}, 5, 10, {}},
      {"two weekday mornings make a weekday-morning favourite only", {{"com.a", 0, 8}, {"com.a", 1, 9}}, 1, 18,
       {{"week_day_1", {"com.a"}}}},
      {"the same day twice is one day", {{"com.a", 1, 8}, {"com.a", 1, 9}}, 1, 10, {}},
      {"a weekday and a weekend day are of different kinds", {{"com.a", 4, 10}, {"com.a", 5, 10}}, 5, 11, {}},
      {"two weekend mornings count across the week, for the weekend", {{"com.a", 5, 10}, {"com.a", 6, 11}}, 7, 9,
       {{"week_end_1", {"com.a"}}}},
      {"a habit that stopped is forgotten once its days leave the last four",
       {{"com.a", 0, 8}, {"com.a", 1, 8}, {"com.a", 2, 8}}, 7, 8, {}},
      {"the most regular first, then the most launched, then by name, at most four",
       {{"com.f", 0, 8}, {"com.f", 1, 8}, {"com.f", 2, 8},   // three days
        {"com.e", 0, 8}, {"com.e", 1, 8}, {"com.e", 1, 9},   // two days, three launches
        {"com.d", 0, 8}, {"com.d", 2, 8},                    // two days
        {"com.b", 0, 8}, {"com.b", 2, 8},                    // two days
        {"com.c", 1, 8}, {"com.c", 2, 8}},                   // two days: fifth by name
       2, 20, {{"week_day_1", {"com.f", "com.e", "com.b", "com.c"}}}},
  };
  for (const Case& c : cases) {
    FetchPreferredApps::clearHistory();
    launch(c.launches);
    EXPECT_EQ(FetchPreferredApps::predict(when(c.day, c.hour)), c.expected) << c.what;
  }
}

TEST_F(FavouritesTest, TheFiguresAreProperties) {
  launch({{"com.a", 0, 8}, {"com.b", 0, 9}, {"com.b", 1, 9}, {"com.c", 0, 8}});
  kxhost::setProperty(FetchPreferredApps::kMinDaysProperty, "1");
  kxhost::setProperty(FetchPreferredApps::kMaxAppsProperty, "2");
  EXPECT_EQ(FetchPreferredApps::predict(when(1, 10)), (Favourites{{"week_day_1", {"com.b", "com.a"}}}));
  kxhost::setProperty(FetchPreferredApps::kDaysProperty, "1");  // today only
  EXPECT_EQ(FetchPreferredApps::predict(when(1, 10)), (Favourites{{"week_day_1", {"com.b"}}}));
  launch({{"com.sat", 5, 10}});
  EXPECT_EQ(FetchPreferredApps::predict(when(6, 10)).count("week_end_1"), 0u) << "a Sunday looks at Sunday alone";
  kxhost::setProperty(FetchPreferredApps::kMaxAppsProperty, "many");  // malformed: the default
  kxhost::setProperty(FetchPreferredApps::kDaysProperty, "0");        // out of range: the default
  EXPECT_EQ(FetchPreferredApps::predict(when(1, 10)).at("week_day_1").size(), 3u);
}

TEST_F(FavouritesTest, EverySlotsRowIsReplacedByItsPredictionAndFavouritesGetAPidRow) {
  launch({{"com.a", 0, 8}, {"com.a", 1, 8}, {"com.b", 0, 18}, {"com.b", 1, 19}});
  kxtest::putRows(mUser, "com.a", 1, [](auto& blob) { blob.value = 10; });
  kxtest::putRows(mStartProc, "com.a", 1, [](auto& blob) { blob.value = 11; });
  kxtest::putRows(mStartProc, "com.b", 1, [](auto& blob) { blob.value = 20; });
  populateAt(1, 22);
  EXPECT_EQ(slots(), (std::vector<std::string>{"week_day_1:com.a", "week_day_3:com.b"}));
  EXPECT_EQ(users(mUser), (std::vector<std::string>{"com.a=10", "com.b=20"}))
      << "an existing row keeps its pid; a favourite without one takes it from the second table";
  EXPECT_EQ(users(mStartProc).size(), 2u) << "the second table is only read";

  // A week on, both habits have stopped: the rows stay, emptied, never duplicated.
  populateAt(8, 10);
  EXPECT_EQ(slots(), (std::vector<std::string>{"week_day_1:", "week_day_3:"}));
}

TEST_F(FavouritesTest, NothingIsWrittenWithoutASlotTableAndLongListsStayWithinTheRow) {
  FetchPreferredApps().populateFavoriteApps(&mUser, &mStartProc, nullptr);
  kxhost::setProperty(FetchPreferredApps::kMaxAppsProperty, "64");
  for (int i = 0; i < 40; ++i) {
    const std::string app = "com.app" + std::to_string(100 + i) + std::string(100, 'x');
    launch({{app, 0, 8}, {app, 1, 8}});
  }
  populateAt(1, 9);
  const std::vector<std::string> rows = slots();
  ASSERT_EQ(rows.size(), 1u);
  const std::string list = rows[0].substr(rows[0].find(':') + 1);
  EXPECT_LT(list.size(), 4096u);
  EXPECT_EQ(list.back(), 'x');  // whole names only
  EXPECT_EQ(list.find("com.app139"), std::string::npos);
}

}  // namespace
