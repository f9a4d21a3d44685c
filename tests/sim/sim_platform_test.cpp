// The simulated platform: the virtual-time scheduler, reading traces and beacon sightings as
// users write them, the simulated location service as a client meets it, the device model and
// the simulated network.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "support/recording_delegate.hpp"
#include "support/recording_server.hpp"
#include "zonaris/sim/beacon_sightings.hpp"
#include "zonaris/sim/input_error.hpp"
#include "zonaris/sim/location_manager.hpp"
#include "zonaris/sim/network.hpp"
#include "zonaris/sim/scheduler.hpp"
#include "zonaris/sim/sim_platform.hpp"
#include "zonaris/sim/trace.hpp"
#include "zonaris/zonaris.hpp"

namespace zonaris::sim {
namespace {

using namespace std::chrono_literals;
using Order = std::vector<std::string>;

TEST(Scheduler, RunsByDueTimeThenPostOrderAndNeverEarly) {
  Scheduler s(defaultStartTime());
  Order order;
  s.postAfter(5s, [&] { order.push_back("b"); });
  s.postAfter(1s, [&] { order.push_back("a"); });
  s.postAfter(5s, [&] {
    EXPECT_EQ(s.elapsed(), 5s);
    s.postAfter(0s, [&] { order.push_back("d"); });
    order.push_back("c");
  });
  s.postAfter(30s, [&] { order.push_back("30 s"); });
  s.runFor(29999ms);
  EXPECT_EQ(order, (Order{"a", "b", "c", "d"}));
  s.runFor(1ms);
  EXPECT_EQ(order.back(), "30 s");
}

TEST(SimDispatcher, DetachNeverRunsInlineAndATickerStopsWhenInvalidatedFromATick) {
  auto s = std::make_shared<Scheduler>(defaultStartTime());
  SimDispatcher d(s);
  Order order;
  d.mainAfter(0s, [&] {
    d.detach([&] { order.push_back("detached"); });
    order.push_back("poster");
  });
  d.mainAfter(0s, [&] { order.push_back("second main"); });
  s->runFor(0s);
  EXPECT_EQ(order, (Order{"poster", "second main", "detached"}));

  int ticks = 0;
  std::shared_ptr<platform::TickerHandle> handle = d.startTicker(1s, [&] {
    if (++ticks == 3)
      handle->invalidate();
  });
  s->runFor(999ms);
  EXPECT_EQ(ticks, 0);
  s->runFor(10s);
  EXPECT_EQ(ticks, 3);
}

// Each point as "t lat lon accuracy speed" ("-": no speed), then the start time if any.
std::string transcript(const Trace& trace) {
  std::string out;
  for (const auto& p : trace.points())
    out += fmt::format("{:.2f} {} {} {} {}; ", p.t, p.latitude, p.longitude, p.horizontalAccuracy,
                       p.speed ? fmt::format("{}", *p.speed) : "-");
  const auto start = trace.startTime();
  return out + (start ? fmt::format("from {}", start->time_since_epoch() / 1s) : "no start");
}

// Traces as users write them: the same walk as GPX and CSV, GPX as different writers put it,
// and a planned route or an untimed track replayed at a pace, where each point's time is the
// distance along the points so far over the pace and times the file gives are ignored.
TEST(TraceFiles, ReadAsTheirWritersMeantThem) {
  // The same two points: no namespace at all; a "gpx:" prefix and a prefixed extension; GPX 1.0
  // with the speed in the point itself and an offset without a colon. Each starts at its first
  // time as written.
  const std::pair<std::string, const char*> dialects[] = {
      {R"(<gpx><trk><trkseg>
           <trkpt lat="10" lon="20"><time>2026-01-01T12:00:00Z</time></trkpt>
           <trkpt lat="10.001" lon="20"><time>2026-01-01T12:00:02.25Z</time>
             <hdop>1.5</hdop><extensions><speed>3</speed></extensions></trkpt>
         </trkseg></trk></gpx>)",
       "1767268800"},
      {R"(<gpx:gpx xmlns:gpx="http://www.topografix.com/GPX/1/1"
                  xmlns:tpx="http://www.garmin.com/xmlschemas/TrackPointExtension/v2">
         <gpx:trk><gpx:trkseg>
           <gpx:trkpt lat="10" lon="20"><gpx:time>2026-01-01T13:00:00+01:00</gpx:time></gpx:trkpt>
           <gpx:trkpt lat="10.001" lon="20"><gpx:time>2026-01-01T12:00:02.250Z</gpx:time>
             <gpx:hdop>1.5</gpx:hdop><gpx:extensions><tpx:TrackPointExtension>
             <tpx:speed>3.0</tpx:speed></tpx:TrackPointExtension></gpx:extensions></gpx:trkpt>
         </gpx:trkseg></gpx:trk></gpx:gpx>)",
       "1767272400"},
      {R"(<gpx version="1.0" xmlns="http://www.topografix.com/GPX/1/0"><trk><trkseg>
           <trkpt lat="+10.0" lon="20.0"><time>2026-01-01T11:30:00-0030</time></trkpt>
           <trkpt lat="10.001" lon="20"><time>2026-01-01T12:00:02.25Z</time>
             <hdop>1.5</hdop><speed>3</speed></trkpt>
         </trkseg></trk></gpx>)",
       "1767267000"}};
  for (const auto& [text, start] : dialects)
    EXPECT_EQ(transcript(Trace::parseGpx(text, "dialect.gpx")),
              std::string("0.00 10 20 5 -; 2.25 10.001 20 7.5 3; from ") + start)
        << text;
  // The first point's clock reading as written (09:00 at +01:00), not its UTC instant.
  const std::string walk =
      "0.00 48.85 2.35 10 1.5; 10.50 48.851 2.35 5 -; 60.00 48.852 2.351 5 2.25; ";
  EXPECT_EQ(transcript(Trace::load(ZONARIS_TEST_DATA_DIR "/walk.gpx")), walk + "from 1772355600");
  EXPECT_EQ(transcript(Trace::load(ZONARIS_TEST_DATA_DIR "/walk.csv")), walk + "no start");

  // About 110.6 m north, then about 200 m east, at 2 m/s.
  const char* route = R"(<gpx version="1.1"><rte>
      <rtept lat="10" lon="20"/><rtept lat="10.001" lon="20"><time>2030-01-01T00:00:00Z</time>
      </rtept><rtept lat="10.001" lon="20.0018262"/></rte></gpx>)";
  const char* untimed = R"(<gpx><trk><trkseg><trkpt lat="10" lon="20"/>
      <trkpt lat="10.001" lon="20"/><trkpt lat="10.001" lon="20.0018262"/></trkseg></trk></gpx>)";
  const std::string paced =
      "0.00 10 20 5 2; 55.30 10.001 20 5 2; 155.42 10.001 20.0018262 5 2; no start";
  EXPECT_EQ(transcript(Trace::parseGpx(route, "planned.gpx", 2.0)), paced);
  EXPECT_EQ(transcript(Trace::parseGpx(untimed, "planned.gpx", 2.0)), paced);
  // A CSV trace always has times; a pace replaces them as well.
  EXPECT_EQ(transcript(Trace::parseCsv("0,10,20\n5,10.001,20\n", "t.csv", 2.0)),
            "0.00 10 20 5 2; 55.30 10.001 20 5 2; no start");
}

// Unreadable input names the file and the line: {file name, whose extension says how it is
// read; text; the message after "name:"}.
TEST(BrokenInputs, NameTheFileAndLine) {
#define UUID "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"
  const std::tuple<std::string, const char*, const char*> cases[] = {
      {"trip.gpx", "<gpx>\n<trk>\n</gpx>", "3: not XML: Start-end tags mismatch"},
      {"trip.gpx", "<kml/>", "1: not a GPX file: the root element is <kml>"},
      {"trip.gpx", "<gpx>\n</gpx>", "1: no track points (<trkpt>) in this GPX file"},
      {"trip.gpx", "<gpx>\n<rte><rtept lat=\"1\" lon=\"2\"/></rte></gpx>",
       "2: <rtept> has no <time>; a trace needs the time of every point, or --pace M/S to "
       "replay it at that speed"},
      {"trip.gpx",
       "<gpx>\n<trkpt lat=\"1\" lon=\"2\"><time>2026-01-01T00:00:10Z</time></trkpt>\n"
       "<trkpt lat=\"1\" lon=\"2\"><time>2026-01-01T01:00:05+01:00</time></trkpt></gpx>",
       "3: times must not go back"},
      {"trip.csv", "# only a comment\n\n", "2: no points in this trace"},
      {"trip.csv", "t,lat,lon\n0,1,2\n1,1\n",
       "3: expected t,lat,lon[,accuracy][,speed] but found 2 fields"},
      {"trip.csv", "0,1,2\n1,1,NaN\n", "2: lon \"NaN\" is not a number"},
      {"beacons.csv", "# c\n\n0,10," UUID ",1,2,1.0",
       "3: expected 7 fields (t_start,t_end,uuid,major,minor,accuracy,proximity), found 6"},
      {"beacons.csv", "0,10," UUID ",1,2,1.0,2\nx,10," UUID ",1,2,1.0,2",
       "2: t_start is not a number: \"x\""},
      {"beacons.csv", "10,10," UUID ",1,2,1.0,2", "1: t_end must be later than t_start"},
      {"beacons.csv", "0,10,shop,1,2,1.0,2", "1: uuid is not a UUID: \"shop\""},
      {"beacons.csv", "0,10," UUID ",1,2,1.0,4", "1: proximity must be between 0 and 3: 4"}};
#undef UUID
  for (const auto& [name, text, error] : cases) {
    try {
      if (name == "trip.gpx")
        Trace::parseGpx(text, name);
      else if (name == "trip.csv")
        Trace::parseCsv(text, name);
      else
        BeaconSightings::parseCsv(text, name);
      ADD_FAILURE() << "no error for " << text;
    } catch (const InputError& e) {
      EXPECT_EQ(std::string(e.what()), name + ":" + error);
    }
  }
}

TEST(TracePosition, IsInterpolatedAndStandsStillAfterTheEnd) {
  const auto trace = Trace::parseCsv(
      "0,10,20,4\n1000,10.01,20,8\n1100,10.01,20.001,8,2\n1200,10.01,20.002,8,4\n", "t.csv");
  // "lat lon accuracy speed" at 250 s (the first leg's 1106.08 m over 1000 s), between two given
  // speeds, and long after the end.
  std::string got;
  for (const double t : {250.0, 1150.0, 5000.0}) {
    const auto p = trace.at(t);
    got += fmt::format("{:.9g} {:.9g} {:.9g} {:.9g}; ", p.latitude, p.longitude,
                       p.horizontalAccuracy, p.speed);
  }
  EXPECT_EQ(got, "10.0025 20 5 1.10607798; 10.01 20.0015 8 3; 10.01 20.002 8 0; ");
}

TEST(BeaconSightings, ReadsAFileAndShowsEachSightingFromItsStartUntilBeforeItsEnd) {
  // The beacons of `uuid` seen at `t`, each as "minor accuracy proximity".
  auto seen = [](const BeaconSightings& s, double t, const std::string& uuid) {
    std::string out;
    for (const auto& b : s.at(t, uuid))
      out += fmt::format("{} {} {}; ", b.minor, b.accuracy, b.proximity);
    return out;
  };
  const auto file = BeaconSightings::load(ZONARIS_TEST_DATA_DIR "/beacon_sightings.csv");
  const std::string shop = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";  // written in lower case
  EXPECT_EQ(file.sightings().at(0).beacon.uuid, shop);
  EXPECT_EQ(seen(file, 5.0, shop), "2 3.5 2; 3 -1 0; ");  // file order
  EXPECT_EQ(seen(file, 10.0, shop), "3 -1 0; ");
  EXPECT_EQ(seen(file, 1.0, "74278bda-b644-4520-8f0c-720eaf059935"), "7 0.4 1; ");
  // Overlapping rows of one beacon come as one entry: the best usable accuracy, in the place of
  // the first row.
  std::string rows;
  for (const char* row : {"1,2,-1,0", "1,3,2,1", "1,2,4.5,3", "1,2,6,3"})
    rows += "0,9," + shop + "," + row + "\n";
  EXPECT_EQ(seen(BeaconSightings::parseCsv(rows, "overlap.csv"), 1.0, shop), "2 4.5 3; 3 2 1; ");
  EXPECT_THROW(BeaconSightings::load(ZONARIS_TEST_DATA_DIR "/no_such_file.csv"), InputError);
}

// Records when each fix arrived, in virtual seconds since the start.
struct RecordingListener final : platform::LocationManagerDelegate {
  explicit RecordingListener(const Scheduler& scheduler) : scheduler(scheduler) {}
  void didUpdateLocations(const std::vector<platform::Location>& locations) override {
    fixTimes.push_back(std::chrono::duration<double>(scheduler.elapsed()).count());
    batchSizes.push_back(locations.size());
    all.insert(all.end(), locations.begin(), locations.end());
  }
  void didRangeBeacons(const std::vector<platform::Beacon>&,
                       const platform::BeaconRegion&) override {}
  std::vector<double> fixTimes;
  std::vector<std::size_t> batchSizes;
  std::vector<platform::Location> all;
  const Scheduler& scheduler;
};

// A simulated location service replaying `csv`, and what it delivers.
struct Device {
  explicit Device(const char* csv) {
    manager->setTrace(std::make_shared<const Trace>(Trace::parseCsv(csv, "trace.csv")));
    manager->setDelegate(listener);
  }
  void fine() {
    manager->setDesiredAccuracy(platform::Accuracy::BestForNavigation);
    manager->setDistanceFilter(platform::kDistanceFilterNone);
  }

  std::shared_ptr<Scheduler> scheduler = std::make_shared<Scheduler>(defaultStartTime());
  std::shared_ptr<SimLocationManager> manager = std::make_shared<SimLocationManager>(scheduler);
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>(*scheduler);
};

// Due north at about 1.1 m/s for 100 s (0.001 degree of latitude is about 110.6 m), in the
// idle setting.
class SimLocationManagerTest : public ::testing::Test, public Device {
 protected:
  SimLocationManagerTest() : Device("0,45,7,6\n100,45.001,7,6\n") {
    manager->setDesiredAccuracy(platform::Accuracy::ThreeKilometers);
  }
};

TEST_F(SimLocationManagerTest, FullAccuracyDeliversEverySecondFromOneSecondAfterTheSetting) {
  manager->setDistanceFilter(99999.0);
  manager->startUpdatingLocation();
  scheduler->runFor(10s);  // only where the device is when updates begin
  fine();
  scheduler->runFor(3500ms);
  fine();  // setting it again restarts the rhythm: one second later, not at 14
  scheduler->runFor(2s);
  EXPECT_EQ(listener->fixTimes, (std::vector<double>{1, 11, 12, 13, 14.5, 15.5}));
  EXPECT_DOUBLE_EQ(listener->all.back().latitude, 45.000155);
  EXPECT_EQ(listener->all.back().timestamp, scheduler->start() + 15500ms);

  manager->stopUpdatingLocation();
  fine();  // a setting made while stopped starts nothing
  scheduler->runFor(60s);
  EXPECT_EQ(listener->fixTimes.size(), 6u);
}

TEST_F(SimLocationManagerTest, CoarseSettingDeliversOnlyAfterMovingFartherThanTheFilter) {
  manager->setDistanceFilter(50.0);
  manager->startUpdatingLocation();
  // 50 m beyond the fix at 1 s is passed after 45 s, and so on. The trace ends at 100 s, 10 m
  // further: standing still, the device gets nothing more.
  scheduler->runFor(1000s);
  EXPECT_EQ(listener->fixTimes, (std::vector<double>{1, 46, 91}));
}

// Armed from the start: the first fix after the delay, then one a second, in batches.
TEST(SimLocationManager, FirstFixAfterTheDelayThenOneASecondInBatches) {
  const struct {
    DeviceModel model;
    std::vector<double> times;  // of the callbacks in the first 8.5 s
    std::size_t batch;          // fixes in each
  } cases[] = {{.model = {}, .times = {1, 2, 3, 4, 5, 6, 7, 8}, .batch = 1},
               {.model = {.fixDelay = 5s}, .times = {5, 6, 7, 8}, .batch = 1},
               {.model = {.batch = 3}, .times = {3, 6}, .batch = 3},
               {.model = {.fixDelay = 5s, .batch = 2}, .times = {6, 8}, .batch = 2}};
  for (const auto& c : cases) {
    Device d("0,45,7,6\n100,45.001,7,6\n");
    auto& [scheduler, manager, listener] = d;
    manager->setDeviceModel(c.model);
    d.fine();
    manager->startUpdatingLocation();
    scheduler->runFor(8500ms);
    EXPECT_EQ(listener->fixTimes, c.times);
    EXPECT_EQ(listener->batchSizes, std::vector<std::size_t>(c.times.size(), c.batch));
    // Each fix of a batch was taken at its own second, the last one as it is delivered.
    EXPECT_EQ(listener->all.back().timestamp, scheduler->start() + 1s * c.times.back());
    EXPECT_EQ(listener->all.front().timestamp, scheduler->start() + c.model.fixDelay);
  }
}

TEST_F(SimLocationManagerTest, StaleFirstRepeatsTheReceiversLastFixOnSharpening) {
  manager->setDeviceModel({.fixDelay = 2s, .staleFirst = true});
  fine();
  manager->startUpdatingLocation();
  scheduler->runFor(3500ms);  // fixes at 2 and 3 s
  manager->setDesiredAccuracy(platform::Accuracy::ThreeKilometers);
  manager->setDistanceFilter(99999.0);
  scheduler->runFor(10s);
  fine();  // at 13.5 s: the fix of 3 s first, at once; the receiver's own 2 s later
  scheduler->runFor(3s);
  EXPECT_EQ(listener->fixTimes, (std::vector<double>{2, 3, 13.5, 15.5, 16.5}));
  const auto& stale = listener->all[2];
  EXPECT_EQ(std::tuple(stale.timestamp, stale.latitude, stale.horizontalAccuracy),
            std::tuple(scheduler->start() + 3s, listener->all[1].latitude, kStaleFixAccuracy));
}

// Between samples the coarse setting delivers what the model's idle fixes say: the receiver's
// fixes past the filter, network positions at most once a minute, or nothing at all.
TEST_F(SimLocationManagerTest, IdleFixesDecideWhatTheCoarseSettingDelivers) {
  // Back and forth along the 110 m of the test walk, for an hour.
  std::string csv;
  for (int leg = 0; leg <= 36; ++leg)
    csv += fmt::format("{},{},7,6\n", leg * 100, leg % 2 ? 45.001 : 45.0);
  manager->setTrace(std::make_shared<const Trace>(Trace::parseCsv(csv, "to-and-fro.csv")));
  const struct {
    IdleFixes idle;
    std::size_t fewest, most;
  } cases[] = {{IdleFixes::Gnss, 100, 200}, {IdleFixes::Network, 2, 61}, {IdleFixes::None, 0, 0}};
  for (const auto& c : cases) {
    listener->fixTimes.clear();
    listener->all.clear();
    manager->setDeviceModel({.seed = 5, .idleFixes = c.idle});
    manager->setDistanceFilter(30.0);
    manager->startUpdatingLocation();
    scheduler->runFor(3600s);
    manager->stopUpdatingLocation();
    const auto n = listener->fixTimes.size();
    EXPECT_TRUE(n >= c.fewest && n <= c.most) << static_cast<int>(c.idle) << ": " << n;
    if (c.idle != IdleFixes::Network)
      continue;
    for (std::size_t i = 1; i < n; ++i)
      EXPECT_GE(listener->fixTimes[i] - listener->fixTimes[i - 1], 60.0);
    for (const auto& fix : listener->all) {
      EXPECT_TRUE(fix.horizontalAccuracy >= kNetworkAccuracyMin &&
                  fix.horizontalAccuracy <= kNetworkAccuracyMax)
          << fix.horizontalAccuracy;
      EXPECT_LT(fix.distanceFrom({45.0005, 7.0}), 60.0 + 4.0 * fix.horizontalAccuracy);
    }
  }
  // At the best accuracy every kind delivers the receiver's fixes, every second.
  manager->setDeviceModel({.idleFixes = IdleFixes::None});
  listener->fixTimes.clear();
  manager->startUpdatingLocation();
  fine();
  scheduler->runFor(3500ms);
  EXPECT_EQ(listener->fixTimes.size(), 3u);
}

// Every fix of `duration` standing at (45, 7) with 6 m accuracy; `coarse`: in the idle setting
// without a distance filter, as between samples.
std::vector<platform::Location> standingFixes(const DeviceModel& model, platform::Duration duration,
                                              bool coarse = false) {
  Device d("0,45,7,6\n");
  d.manager->setDeviceModel(model);
  if (coarse) {
    d.manager->setDesiredAccuracy(platform::Accuracy::ThreeKilometers);
    d.manager->setDistanceFilter(0.0);
  }
  d.manager->startUpdatingLocation();
  d.scheduler->runFor(duration);
  return d.listener->all;
}

// Network positions claim what they are: over many, about 68 % lie within their accuracy, and
// the accuracies spread over their whole range.
TEST(DeviceModel, NetworkPositionsErrMatchesTheirAccuracy) {
  const auto fixes =
      standingFixes({.seed = 9, .idleFixes = IdleFixes::Network}, std::chrono::hours(40), true);
  ASSERT_GE(fixes.size(), 2000u);
  std::size_t within = 0, fine = 0, coarse = 0;
  for (const auto& f : fixes) {
    within += f.distanceFrom({45.0, 7.0}) <= f.horizontalAccuracy;
    fine += f.horizontalAccuracy < 100.0;
    coarse += f.horizontalAccuracy > 1000.0;
  }
  EXPECT_NEAR(static_cast<double>(within) / static_cast<double>(fixes.size()), 0.68, 0.04);
  EXPECT_GT(fine, fixes.size() / 4);
  EXPECT_GT(coarse, fixes.size() / 20);
}

TEST(DeviceModel, NoiseAndOutliersFollowTheSeedAndTheirClaims) {
  const platform::Location truth{45.0, 7.0};
  auto errors = [&](const std::vector<platform::Location>& fixes) {
    std::vector<double> metres;
    for (const auto& f : fixes)
      metres.push_back(f.distanceFrom(truth));
    return metres;
  };
  const int n = 2000;
  const auto noisy = errors(standingFixes({.seed = 7, .noise = 10.0}, n * 1s));
  EXPECT_EQ(noisy, errors(standingFixes({.seed = 7, .noise = 10.0}, n * 1s)));
  EXPECT_NE(noisy, errors(standingFixes({.seed = 8, .noise = 10.0}, n * 1s)));
  // Two axes of 10 m each: the error's mean length is 10 * sqrt(pi / 2) m.
  double mean = 0.0;
  for (double e : noisy)
    mean += e / n;
  EXPECT_NEAR(mean, 10.0 * std::sqrt(std::acos(-1.0) / 2.0), 0.6);
  EXPECT_NEAR(standingFixes({.noise = 10.0}, 1s).at(0).horizontalAccuracy, std::hypot(6.0, 15.096),
              1e-9);

  const auto fixes = standingFixes({.seed = 7, .outlierRate = 0.05}, n * 1s);
  int jumps = 0;
  for (const auto& f : fixes) {
    const double e = f.distanceFrom(truth);
    EXPECT_EQ(f.horizontalAccuracy, 6.0);  // an outlier claims a good fix
    EXPECT_TRUE(e == 0.0 || (e > 199.0 && e < 801.0)) << e;
    jumps += e > 0.0;
  }
  EXPECT_GT(jumps, 60);
  EXPECT_LT(jumps, 140);
}

TEST(SimNetwork, ALatencyHoldsOnlyTheCallingChainAndTheMainQueueBehindIt) {
  struct Answer final : platform::HttpClient {
    platform::HttpResponse send(const platform::HttpRequest&) override {
      return {false, 200, {}, {}};
    }
  };
  for (const auto kind : {OutageKind::Unreachable, OutageKind::Unavailable}) {
    auto s = std::make_shared<Scheduler>(defaultStartTime());
    SimDispatcher d(s);
    Order order;
    auto stamp = [&](const std::string& what) {
      order.push_back(fmt::format("{} {}", s->elapsed() / 1ms, what));
    };
    SimNetwork net(std::make_shared<Answer>(), s, {300ms, {{1.0, 2.0}}, kind});
    auto send = [&] {
      const auto r = net.send({});
      return fmt::format("answer {}{}", r.status, r.transportError ? " transport error" : "");
    };
    d.detach([&] {
      stamp("send");
      stamp(send());
    });
    d.mainAfter(100ms, [&] { stamp("main"); });
    s->postAfter(100ms, [&] { stamp("detached"); });
    // In the outage, and on the main queue: the next main task waits for it, others do not.
    d.mainAfter(1000ms, [&] { stamp("main " + send()); });
    d.mainAfter(1100ms, [&] { stamp("next main"); });
    s->postAfter(1100ms, [&] { stamp("detached"); });
    s->runFor(2500ms);
    const std::string refused = kind == OutageKind::Unreachable ? "0 transport error" : "503";
    EXPECT_EQ(order, (Order{"0 send", "100 main", "100 detached", "300 answer 200", "1100 detached",
                            "1300 main answer " + refused, "1300 next main"}));
    EXPECT_FALSE(s->sleepFor(1s)) << "outside a task there is nothing to hold";
  }
  EXPECT_EQ(parseOutage("600-7800.5"), (Outage{600, 7800.5}));
  for (const char* bad : {"60", "60-60", "-5-60", "a-60", "60-", "60-inf"})
    EXPECT_FALSE(parseOutage(bad)) << bad;
}

// A client on the north walk, which starts in a fence of 100 m, against a recording server.
TEST(NetworkedClient, StaleFirstFixIsTakenAndItsSpeedMeasuredAsNoTimeAtAll) {
  test::RecordingServer server;
  server.respond("POST", "/install", {201, R"({"id": 9})"});
  server.respond("POST", "/install/error", {200, ""});
  server.respond("POST", "/observation", {200, R"({"id": 1, "events": []})"});
  server.respond("GET", "/install/location", {200, R"j([{"id": 3, "name": "Start", "type":
      "point", "radius": 100, "location": "POINT (7 45)", "_event_types": ["entry"],
      "_dwell_windows": []}])j"});
  auto delegate = std::make_shared<test::RecordingDelegate>();
  SimulationOptions options;
  options.baseUrl = server.baseUrl();
  options.device = {.fixDelay = 5s, .staleFirst = true};
  options.network = {300ms, {}, OutageKind::Unreachable};
  options.trace =
      std::make_shared<const Trace>(Trace::load(ZONARIS_TEST_DATA_DIR "/north_walk.csv"));
  Simulation simulation(std::move(options));
  auto client = Zonaris::initWithAppKey("k", simulation.platform());
  client->setDelegate(delegate);
  client->start();
  simulation.runFor(200s);
  // The first pass after the download takes the stale fix: the reference fix itself, again.
  const auto accuracies = delegate->calls("updatedGPSAccuracy");
  const auto speeds = delegate->calls("updatedSpeed");
  ASSERT_GE(speeds.size(), 3u);
  EXPECT_EQ(accuracies.at(0)[0], kStaleFixAccuracy);
  EXPECT_EQ(speeds[0][0], 0.0) << "no time between the fixes counts as one second";
  EXPECT_GT(speeds[2][0].get<double>(), 1.0) << "later stale fixes are a sample apart";
  EXPECT_EQ(server.count("POST", "/install/error"), 0u) << "no speed fault";
}

}  // namespace
}  // namespace zonaris::sim
