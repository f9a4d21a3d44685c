// zonaris-sim on the bundled example day against the embedded service: the day's events and
// messages arrive in the order the walk makes them, and the same inputs print the same bytes.

#include <algorithm>

#include <gtest/gtest.h>

#include "tools/sim_process.hpp"

#ifdef ZONARIS_SIM_BIN

namespace zonaris::test {
namespace {

using nlohmann::json;

struct Callback {
  double t;
  std::string name;
  json args;
};

class BundledDay : public ::testing::Test {
 protected:
  // One run shared by the tests of this suite: the day takes a moment even in virtual time.
  static void SetUpTestSuite() {
    ScratchFolder scratch;
    const std::vector<std::string> args{"--trace",
                                        example("day.gpx"),
                                        "--fences",
                                        example("fences.json"),
                                        "--beacons",
                                        example("beacons.csv"),
                                        "--uuid",
                                        "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5",
                                        "--silence",
                                        "17",
                                        "19",
                                        "--start",
                                        "2026-03-10T07:30:00"};
    args_ = new std::vector<std::string>(args);
    first_ = new ProcessResult(runProcess(ZONARIS_SIM_BIN, args, scratch));
  }
  static void TearDownTestSuite() {
    delete first_;
    delete args_;
  }

  static std::vector<Callback> callbacks() {
    std::vector<Callback> all;
    for (const auto& line : first_->lines()) {
      if (!line.is_object() || !line.contains("name") || !line.at("name").is_string() ||
          !line.contains("t") || !line.at("t").is_number())
        continue;
      all.push_back({line.at("t").get<double>(), line.at("name").get<std::string>(),
                     line.contains("args") ? line.at("args") : json()});
    }
    return all;
  }

  /// Seconds since the start of the first `name` callback about `place` at or after `after`,
  /// or -1.
  static double when(const std::string& name, const std::string& place, double after = 0.0) {
    for (const auto& c : callbacks()) {
      if (c.name == name && c.t >= after && c.args == json::array({place}))
        return c.t;
    }
    return -1.0;
  }

  static std::vector<std::string>* args_;
  static ProcessResult* first_;
};

std::vector<std::string>* BundledDay::args_ = nullptr;
ProcessResult* BundledDay::first_ = nullptr;

// Clock times of the day (seconds after 07:30).
constexpr double at(int hour, int minute) {
  return (hour * 60 + minute - (7 * 60 + 30)) * 60.0;
}

TEST_F(BundledDay, EventsFollowTheWalkFromHomeToTheOfficeAndBack) {
  ASSERT_EQ(first_->status, 0) << first_->err;

  // Home at the start, left on the way to the bakery, back in the evening.
  const double homeEntry = when("eventEnterCallback", "Home");
  EXPECT_GE(homeEntry, 0.0);
  EXPECT_LT(homeEntry, at(7, 35));
  const double homeExit = when("eventExitCallback", "Home");
  EXPECT_GT(homeExit, at(7, 45));
  EXPECT_LT(homeExit, at(7, 53));
  const double homeAgain = when("eventEnterCallback", "Home", at(18, 55));
  EXPECT_GT(homeAgain, at(18, 55));
  EXPECT_LT(homeAgain, at(19, 10));

  // Bakery: entry, a dwell after its two-minute window, exit when driving off.
  const double bakeryEntry = when("eventEnterCallback", "Corner Bakery");
  const double bakeryDwell = when("eventDwellCallback", "Corner Bakery");
  const double bakeryExit = when("eventExitCallback", "Corner Bakery");
  EXPECT_GT(bakeryEntry, homeExit);
  EXPECT_GE(bakeryDwell, bakeryEntry + 120.0);
  EXPECT_GT(bakeryExit, bakeryDwell);
  EXPECT_LT(bakeryExit, at(8, 5));

  // Office in the morning, with its fifteen-minute dwell, left for lunch.
  const double officeEntry = when("eventEnterCallback", "Harbour Office");
  const double officeDwell = when("eventDwellCallback", "Harbour Office");
  const double officeExit = when("eventExitCallback", "Harbour Office");
  EXPECT_GT(officeEntry, at(8, 0));
  EXPECT_LT(officeEntry, at(8, 30));
  EXPECT_GE(officeDwell, officeEntry + 900.0);
  EXPECT_GT(officeExit, at(12, 0));
  EXPECT_LT(officeExit, at(12, 10));

  // The cafe is a beacon fence: entered and left by the beacons seen over lunch.
  const double cafeEntry = when("eventEnterCallback", "Cafe Lumen");
  const double cafeExit = when("eventExitCallback", "Cafe Lumen");
  EXPECT_GT(cafeEntry, officeExit);
  EXPECT_GT(cafeExit, at(12, 50));
  EXPECT_LT(cafeExit, at(13, 5));

  // The gym, then home.
  const double gymEntry = when("eventEnterCallback", "Northside Gym");
  EXPECT_GT(gymEntry, at(18, 0));
  EXPECT_GT(when("eventExitCallback", "Northside Gym"), gymEntry);

  // A fence the service lists without event types is never an event.
  for (const auto& c : callbacks())
    EXPECT_NE(c.args, json::array({"Old Depot"}));
}

TEST_F(BundledDay, MessagesFollowTheirEventsExceptInTheSilenceWindow) {
  ASSERT_EQ(first_->status, 0) << first_->err;
  const auto all = callbacks();
  std::vector<std::string> titles;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (all[i].name != "actionBasicCallback")
      continue;
    const json& args = all[i].args;
    ASSERT_TRUE(args.is_array() && args.size() == 1 && args[0].is_object());
    auto title = args[0].find("title");
    ASSERT_TRUE(title != args[0].end() && title->is_string());
    titles.push_back(title->get<std::string>());
    // The event that carried the message was confirmed just before, in the same instant.
    auto event = std::find_if(all.rbegin() + static_cast<long>(all.size() - i), all.rend(),
                              [](const Callback& c) { return c.name.rfind("event", 0) == 0; });
    ASSERT_NE(event, all.rend());
    EXPECT_EQ(event->t, all[i].t);
  }
  // Home (morning), bakery, office entry and dwell(s), cafe, home (evening); none of the gym's.
  ASSERT_GE(titles.size(), 6u);
  EXPECT_EQ(titles.front(), "Welcome home");
  EXPECT_EQ(titles[1], "Fresh from the oven");
  EXPECT_EQ(titles.back(), "Welcome home");
  EXPECT_NE(std::find(titles.begin(), titles.end(), "Lunch menu"), titles.end());
  EXPECT_EQ(std::find(titles.begin(), titles.end(), "Class at 18:30"), titles.end());
  EXPECT_EQ(std::find(titles.begin(), titles.end(), "Half an hour in"), titles.end());

  // The bakery's dwell message has only keys of the application's own.
  bool coupon = false;
  for (const auto& c : all) {
    if (c.name == "actionDataCallback" &&
        c.args == json::array({{{"values", {{"coupon", "CROISSANT10"}, {"valid_days", 7}}}}}))
      coupon = true;
  }
  EXPECT_TRUE(coupon);
}

TEST_F(BundledDay, TheSameInputsPrintTheSameBytes) {
  ASSERT_EQ(first_->status, 0) << first_->err;
  ScratchFolder scratch;
  const ProcessResult second = runProcess(ZONARIS_SIM_BIN, *args_, scratch);
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_GT(first_->out.size(), 0u);
  EXPECT_TRUE(first_->out == second.out) << "the two runs differ";
}

}  // namespace
}  // namespace zonaris::test

#endif
