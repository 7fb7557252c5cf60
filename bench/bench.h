// A small harness for the figures that scripts/bench prints.
//
// Each family of operations registers one section; a section measures what it needs in this one
// run (the machine is shared and noisy, so targets are ratios against a floor measured alongside)
// and reports figures as "name value" lines.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace tervain::bench {

struct Section {
  std::string name;
  std::function<void()> run;
};

std::vector<Section>& sections();

struct Registrar {
  Registrar(std::string name, std::function<void()> run) {
    sections().push_back({std::move(name), std::move(run)});
  }
};

// Prints one figure: "name value".
void report(const std::string& name, double value);

// Resident set size of a process in KiB (from /proc on Linux, ps elsewhere); -1 when unknown.
long rssKib(int pid);
// Peak resident set size (VmHWM) in KiB; -1 when unknown.
long peakRssKib(int pid);

// Percentile (0..100) of a sample set, which it sorts.
double percentile(std::vector<double>& samples, double p);

}  // namespace tervain::bench

#define TERVAIN_BENCH_SECTION(id, label) \
  static void id();                      \
  static ::tervain::bench::Registrar id##_registrar(label, id); \
  static void id()
