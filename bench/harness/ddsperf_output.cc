#include "harness/ddsperf_output.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <vector>

namespace korvan_bench {
namespace {

// The number after the word `key` in `line`, with its unit: "12.5us" -> 12500 ns.
bool FindValue(const std::string& line, const std::string& key, double* value) {
  const std::string needle = " " + key + " ";
  const size_t at = line.find(needle);
  if (at == std::string::npos)
    return false;
  const char* start = line.c_str() + at + needle.size();
  char* end = nullptr;
  double v = std::strtod(start, &end);
  if (end == start)
    return false;
  const char* unit_start = end;
  const char* line_end = line.c_str() + line.size();
  const std::string unit(unit_start, std::find(unit_start, line_end, ' '));
  if (unit == "us") {
    v *= 1e3;
  } else if (unit == "ms") {
    v *= 1e6;
  } else if (unit == "s") {
    v *= 1e9;
  } else if (unit == "ns" || unit.empty()) {
  } else {
    return false;
  }
  *value = v;
  return true;
}

// The time stamp after "[pid] ".
bool LineTime(const std::string& line, double* t) {
  const size_t close = line.find("] ");
  if (line.empty() || line[0] != '[' || close == std::string::npos)
    return false;
  const char* start = line.c_str() + close + 2;
  char* end = nullptr;
  *t = std::strtod(start, &end);
  return end != start;
}

}  // namespace

Summary ParseDdsperfPing(const std::string& output) {
  Summary s;
  std::istringstream in(output);
  std::string line;
  double weight = 0, mean = 0, median = 0, p90 = 0, p99 = 0;
  double min = 0, max = 0;
  while (std::getline(in, line)) {
    double cnt, v_mean, v_min, v_50, v_90, v_99, v_max;
    if (!FindValue(line, "cnt", &cnt) || !FindValue(line, "mean", &v_mean) ||
        !FindValue(line, "min", &v_min) || !FindValue(line, "50%", &v_50) ||
        !FindValue(line, "90%", &v_90) || !FindValue(line, "99%", &v_99) ||
        !FindValue(line, "max", &v_max) || cnt <= 0)
      continue;
    min = weight == 0 ? v_min : std::min(min, v_min);
    max = std::max(max, v_max);
    weight += cnt;
    mean += cnt * v_mean;
    median += cnt * v_50;
    p90 += cnt * v_90;
    p99 += cnt * v_99;
  }
  if (weight == 0)
    return s;
  s.count = static_cast<size_t>(weight);
  s.mean = mean / weight;
  s.min = static_cast<int64_t>(min);
  s.max = static_cast<int64_t>(max);
  s.median = static_cast<int64_t>(median / weight);
  s.p90 = static_cast<int64_t>(p90 / weight);
  s.p99 = static_cast<int64_t>(p99 / weight);
  return s;
}

DdsperfRate ParseDdsperfSub(const std::string& output) {
  struct Point {
    double t;
    double total;
    double lost;
  };
  std::vector<Point> points;
  std::istringstream in(output);
  std::string line;
  while (std::getline(in, line)) {
    if (line.find(": gone") != std::string::npos)
      break;
    double t, total, lost = 0;
    if (!LineTime(line, &t) || !FindValue(line, "total", &total))
      continue;
    FindValue(line, "lost", &lost);  // the first "lost" is the running total
    points.push_back({t, total, lost});
  }
  DdsperfRate rate;
  if (points.size() < 3)
    return rate;  // the first line and at least one full second after it
  const Point& first = points[1];
  const Point& last = points.back();
  if (last.t <= first.t)
    return rate;
  rate.ok = true;
  rate.messages_per_s = (last.total - first.total) / (last.t - first.t);
  rate.lost = static_cast<uint64_t>(last.lost);
  return rate;
}

}  // namespace korvan_bench
