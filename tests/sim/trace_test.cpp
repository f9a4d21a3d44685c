// Reading traces as users write them, and the device's position along one.
#include "zonaris/sim/trace.hpp"

#include <gtest/gtest.h>

#include <string>

#include "zonaris/sim/input_error.hpp"
#include "zonaris/sim/sim_platform.hpp"

namespace zonaris::sim {
namespace {

// The points every variant of the test walk must yield.
void expectTheTestWalk(const Trace& trace) {
  const auto& p = trace.points();
  ASSERT_EQ(p.size(), 3u);
  EXPECT_EQ(p[0].t, 0.0);
  EXPECT_EQ(p[1].t, 10.5);
  EXPECT_EQ(p[2].t, 60.0);
  EXPECT_EQ(p[1].latitude, 48.851);
  EXPECT_EQ(p[2].longitude, 2.351);
  EXPECT_EQ(p[0].horizontalAccuracy, 10.0);
  EXPECT_EQ(p[1].horizontalAccuracy, 5.0);
  EXPECT_EQ(p[0].speed, 1.5);
  EXPECT_FALSE(p[1].speed);
  EXPECT_EQ(p[2].speed, 2.25);
  EXPECT_EQ(trace.duration(), 60.0);
}

TEST(TraceFiles, GpxAndCsvOfTheSameWalkReadAlike) {
  const auto gpx = Trace::load(ZONARIS_TEST_DATA_DIR "/walk.gpx");
  expectTheTestWalk(gpx);
  // The first point's clock reading as written (09:00 at +01:00), not its UTC instant.
  EXPECT_EQ(gpx.startTime(), parseLocalTime("2026-03-01T09:00:00"));

  const auto csv = Trace::load(ZONARIS_TEST_DATA_DIR "/walk.csv");
  expectTheTestWalk(csv);
  EXPECT_FALSE(csv.startTime());
}

// The same two points in the dialects GPX files come in.
class GpxDialects : public ::testing::TestWithParam<const char*> {};

TEST_P(GpxDialects, YieldTheSamePoints) {
  const auto trace = Trace::parseGpx(GetParam(), "dialect.gpx");
  const auto& p = trace.points();
  ASSERT_EQ(p.size(), 2u);
  EXPECT_EQ(p[0].latitude, 10.0);
  EXPECT_EQ(p[0].longitude, 20.0);
  EXPECT_EQ(p[1].t, 2.25);
  EXPECT_EQ(p[1].speed, 3.0);
  EXPECT_EQ(p[1].horizontalAccuracy, 7.5);
}

INSTANTIATE_TEST_SUITE_P(
    Trace, GpxDialects,
    ::testing::Values(
        // no namespace at all
        R"(<gpx><trk><trkseg>
             <trkpt lat="10" lon="20"><time>2026-01-01T12:00:00Z</time></trkpt>
             <trkpt lat="10.001" lon="20"><time>2026-01-01T12:00:02.25Z</time>
               <hdop>1.5</hdop><extensions><speed>3</speed></extensions></trkpt>
           </trkseg></trk></gpx>)",
        // a "gpx:" prefix and a prefixed extension
        R"(<?xml version="1.0"?>
           <gpx:gpx xmlns:gpx="http://www.topografix.com/GPX/1/1"
                    xmlns:tpx="http://www.garmin.com/xmlschemas/TrackPointExtension/v2">
           <gpx:trk><gpx:trkseg>
             <gpx:trkpt lat="10" lon="20"><gpx:time>2026-01-01T13:00:00+01:00</gpx:time></gpx:trkpt>
             <gpx:trkpt lat="10.001" lon="20"><gpx:time>2026-01-01T12:00:02.250Z</gpx:time>
               <gpx:hdop>1.5</gpx:hdop>
               <gpx:extensions><tpx:TrackPointExtension><tpx:speed>3.0</tpx:speed>
               </tpx:TrackPointExtension></gpx:extensions></gpx:trkpt>
           </gpx:trkseg></gpx:trk></gpx:gpx>)",
        // GPX 1.0: speed in the point itself, an offset without a colon
        R"(<gpx version="1.0" xmlns="http://www.topografix.com/GPX/1/0"><trk><trkseg>
             <trkpt lat="+10.0" lon="20.0"><time>2026-01-01T11:30:00-0030</time></trkpt>
             <trkpt lat="10.001" lon="20"><time>2026-01-01T12:00:02.25Z</time>
               <hdop>1.5</hdop><speed>3</speed></trkpt>
           </trkseg></trk></gpx>)"));

struct Broken {
  const char* format;  // "gpx" or "csv"
  const char* text;
  const char* error;  // the whole message of the error
};

class BrokenTraces : public ::testing::TestWithParam<Broken> {};

TEST_P(BrokenTraces, NameTheFileAndLine) {
  const auto& c = GetParam();
  const std::string name = std::string("trip.") + c.format;
  try {
    if (std::string(c.format) == "gpx")
      Trace::parseGpx(c.text, name);
    else
      Trace::parseCsv(c.text, name);
    FAIL() << "no error for " << c.text;
  } catch (const InputError& e) {
    EXPECT_EQ(std::string(e.what()), name + ":" + c.error);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Trace, BrokenTraces,
    ::testing::Values(Broken{"gpx", "this is not XML", "1: not XML: No document element found"},
                      Broken{"gpx", "<gpx>\n<trk>\n</gpx>", "3: not XML: Start-end tags mismatch"},
                      Broken{"gpx", "<kml/>", "1: not a GPX file: the root element is <kml>"},
                      Broken{"gpx", "<gpx>\n</gpx>",
                             "1: no track points (<trkpt>) in this GPX file"},
                      Broken{"gpx", "<gpx>\n<rte><rtept lat=\"1\" lon=\"2\"/></rte></gpx>",
                             "2: <rtept> has no <time>; a trace needs the time of every point"},
                      Broken{"gpx",
                             "<gpx>\n<trkpt lat=\"91\" lon=\"2\"><time>2026-01-01T00:00:00Z</time>"
                             "</trkpt></gpx>",
                             "2: latitude 91 is out of range (-90 to 90)"},
                      Broken{"gpx", "<gpx><trkpt lat=\"nan\" lon=\"2\"/></gpx>",
                             "1: <trkpt> has no valid lat attribute"},
                      Broken{"gpx",
                             "<gpx><trkpt lat=\"1\" lon=\"2\">\n<time>2026-02-30T00:00:00Z</time>"
                             "</trkpt></gpx>",
                             "2: <time> \"2026-02-30T00:00:00Z\" is not an ISO 8601 date and time"},
                      Broken{"gpx",
                             "<gpx>\n<trkpt lat=\"1\" lon=\"2\"><time>2026-01-01T00:00:10Z</time>"
                             "</trkpt>\n<trkpt lat=\"1\" lon=\"2\"><time>2026-01-01T01:00:05+01:00"
                             "</time></trkpt></gpx>",
                             "3: times must not go back"},
                      Broken{"csv", "# only a comment\n\n", "2: no points in this trace"},
                      Broken{"csv", "t,lat,lon\n0,1,2\n1,1\n",
                             "3: expected t,lat,lon[,accuracy][,speed] but found 2 fields"},
                      Broken{"csv", "0,1,2\n1,1,NaN\n", "2: lon \"NaN\" is not a number"},
                      Broken{"csv", "0,1,2\n5,1,2\n4,1,2\n", "3: times must not go back"}));

TEST(TracePosition, IsInterpolatedAndStandsStillOutsideTheTrace) {
  // 1000 s north along a meridian with no speed given, then 100 s with speeds given.
  const auto trace = Trace::parseCsv(
      "0,10,20,4\n1000,10.01,20,8\n1100,10.01,20.001,8,2\n1200,10.01,20.002,8,4\n", "t.csv");
  const auto mid = trace.at(250.0);
  EXPECT_DOUBLE_EQ(mid.latitude, 10.0025);
  EXPECT_DOUBLE_EQ(mid.longitude, 20.0);
  EXPECT_DOUBLE_EQ(mid.horizontalAccuracy, 5.0);
  // Speed derived from the segment: its geodesic length over its 1000 s.
  platform::Location a, b;
  a.latitude = 10.0;
  a.longitude = 20.0;
  b.latitude = 10.01;
  b.longitude = 20.0;
  EXPECT_DOUBLE_EQ(mid.speed, a.distanceFrom(b) / 1000.0);
  EXPECT_DOUBLE_EQ(trace.at(1150.0).speed, 3.0);  // between two given speeds
  EXPECT_DOUBLE_EQ(trace.at(1050.0).speed, 2.0);  // only the end's speed is given

  for (double t : {1200.0, 5000.0}) {
    const auto after = trace.at(t);
    EXPECT_EQ(after.latitude, 10.01);
    EXPECT_EQ(after.longitude, 20.002);
    EXPECT_EQ(after.speed, 0.0);
  }
}

}  // namespace
}  // namespace zonaris::sim
