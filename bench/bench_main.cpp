// tervain_bench [SECTION...]: runs every registered section (or the named ones) in name order.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "bench.h"

namespace tervain::bench {

std::vector<Section>& sections() {
  static std::vector<Section> all;
  return all;
}

void report(const std::string& name, double value) {
  if (std::fabs(value - std::round(value)) < 1e-9 && std::fabs(value) < 1e15) {
    std::printf("%s %.0f\n", name.c_str(), value);
  } else {
    std::printf("%s %.3f\n", name.c_str(), value);
  }
  std::fflush(stdout);
}

static long statusField(int pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field + ":", 0) == 0) {
      std::istringstream value(line.substr(field.size() + 1));
      long kib = -1;
      value >> kib;
      return kib;
    }
  }
  return -1;
}

long rssKib(int pid) { return statusField(pid, "VmRSS"); }
long peakRssKib(int pid) { return statusField(pid, "VmHWM"); }

double percentile(std::vector<double>& samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const auto index = static_cast<std::size_t>(p / 100.0 * static_cast<double>(samples.size() - 1));
  return samples[index];
}

}  // namespace tervain::bench

int main(int argc, char** argv) {
  auto& all = tervain::bench::sections();
  std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  for (const auto& section : all) {
    bool wanted = argc < 2;
    for (int i = 1; i < argc; ++i) wanted = wanted || section.name == argv[i];
    if (wanted) section.run();
  }
  return 0;
}
