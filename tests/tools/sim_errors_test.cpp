// zonaris-sim refuses bad input with one error line on stderr and exit status 2, before it
// prints anything on stdout.

#include <gtest/gtest.h>

#include "tools/sim_process.hpp"

#ifdef ZONARIS_SIM_BIN

namespace zonaris::test {
namespace {

struct BadInput {
  const char* name;
  /// Arguments; "@trace", "@fences", "@bad" and "@missing" stand for files the test provides:
  /// a good trace, good fences, a file with garbage, a path that does not exist.
  std::vector<std::string> args;
  /// A piece of text the error line must contain.
  const char* mentions;
};

class SimRefuses : public ::testing::TestWithParam<BadInput> {};

TEST_P(SimRefuses, WithOneErrorLineAndStatusTwo) {
  ScratchFolder scratch;
  const std::string trace = scratch.file("walk.csv", "t,lat,lon\n0,48.1,11.5\n60,48.101,11.5\n");
  const std::string fences = scratch.file("fences.json", "[]");
  const std::string bad = scratch.file("bad.gpx", "<gpx><trk><trkseg><trkpt lat=\"x\"");
  std::vector<std::string> args;
  for (const auto& arg : GetParam().args) {
    if (arg == "@trace")
      args.push_back(trace);
    else if (arg == "@fences")
      args.push_back(fences);
    else if (arg == "@bad")
      args.push_back(bad);
    else if (arg == "@missing")
      args.push_back(scratch.path("no-such-file"));
    else
      args.push_back(arg);
  }

  const ProcessResult result = runProcess(ZONARIS_SIM_BIN, args, scratch);

  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  ASSERT_FALSE(result.err.empty());
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
  EXPECT_EQ(result.err.rfind("zonaris-sim: ", 0), 0u) << result.err;
  EXPECT_NE(result.err.find(GetParam().mentions), std::string::npos) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    BadCommandLines, SimRefuses,
    ::testing::Values(
        BadInput{"UnknownOption",
                 {"--trace", "@trace", "--fences", "@fences", "--speed", "3"},
                 "--speed"},
        BadInput{"NoTrace", {"--fences", "@fences"}, "--trace"},
        BadInput{
            "MissingTraceFile", {"--trace", "@missing", "--fences", "@fences"}, "no-such-file"},
        BadInput{"MalformedTrace", {"--trace", "@bad", "--fences", "@fences"}, "bad.gpx"},
        BadInput{"NoService", {"--trace", "@trace"}, "--service"},
        BadInput{"BothServices",
                 {"--trace", "@trace", "--fences", "@fences", "--service", "http://127.0.0.1:9"},
                 "--service"},
        BadInput{"MalformedFences", {"--trace", "@trace", "--fences", "@bad"}, "bad.gpx"},
        BadInput{"MalformedBeacons",
                 {"--trace", "@trace", "--fences", "@fences", "--beacons", "@bad"},
                 "bad.gpx"},
        BadInput{"TagsNotAnObject",
                 {"--trace", "@trace", "--fences", "@fences", "--tags", "[1,2]"},
                 "--tags"},
        BadInput{
            "NotAUuid", {"--trace", "@trace", "--fences", "@fences", "--uuid", "beacon"}, "--uuid"},
        BadInput{"SilenceHourOutOfRange",
                 {"--trace", "@trace", "--fences", "@fences", "--silence", "22", "24"},
                 "--silence"},
        BadInput{"SilenceWithOneHour",
                 {"--trace", "@trace", "--fences", "@fences", "--silence", "22"},
                 "--silence"},
        BadInput{"MalformedStart",
                 {"--trace", "@trace", "--fences", "@fences", "--start", "2026-02-30T08:00:00"},
                 "--start"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zonaris::test

#endif
