// Measures how well a periodic application keeps its period: runs one at 10 ms for 200 steps
// (arguments: interval in ms, steps) and prints the mean, spread and extremes of the gaps
// between steps. A measurement, not a test: a shared machine decides how good the numbers
// are.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "tarvikdds/application/application.h"

namespace {

class Metronome : public tarvik::quessa::Application {
 public:
  explicit Metronome(size_t steps) : Application("metronome"), wanted_(steps) {}
  std::string Init() override { return ""; }
  std::string Proc(uint64_t, uint64_t) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (times_.size() < wanted_)
      times_.push_back(std::chrono::steady_clock::now());
    return "";
  }
  std::string Finalize() override { return ""; }
  bool Done() {
    std::lock_guard<std::mutex> lock(mutex_);
    return times_.size() >= wanted_;
  }
  std::vector<std::chrono::steady_clock::time_point> Times() {
    std::lock_guard<std::mutex> lock(mutex_);
    return times_;
  }

 private:
  const size_t wanted_;
  std::mutex mutex_;
  std::vector<std::chrono::steady_clock::time_point> times_;
};

}  // namespace

int main(int argc, char** argv) {
  const int interval = argc > 1 ? std::atoi(argv[1]) : 10;
  const size_t steps = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 200;
  setenv("KORVAN_BUS_TRANSPORT", "local", 0);  // the timer is what is measured, not the network
  Metronome app(steps + 1);
  app.Start(interval);
  while (!app.Done())
    std::this_thread::sleep_for(std::chrono::milliseconds(interval));
  app.Stop();

  const auto times = app.Times();
  std::vector<double> gaps;
  for (size_t i = 1; i < times.size(); ++i) {
    gaps.push_back(std::chrono::duration<double, std::milli>(times[i] - times[i - 1]).count());
  }
  double mean = 0;
  for (double g : gaps)
    mean += g;
  mean /= static_cast<double>(gaps.size());
  double variance = 0;
  for (double g : gaps)
    variance += (g - mean) * (g - mean);
  const double stddev = std::sqrt(variance / static_cast<double>(gaps.size()));
  const auto [lowest, highest] = std::minmax_element(gaps.begin(), gaps.end());
  const double error = 100.0 * (mean - interval) / interval;
  std::printf(
      "period %d ms over %zu steps: mean %.3f ms (%+.2f %%), stddev %.3f ms, "
      "min %.3f ms, max %.3f ms -> %s\n",
      interval, gaps.size(), mean, error, stddev, *lowest, *highest,
      std::fabs(error) <= 5.0 ? "within 5 %" : "OUTSIDE 5 %");
  return 0;
}
