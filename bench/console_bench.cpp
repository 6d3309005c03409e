// Costs of the console's own work around a keystore call: the timing
// brackets (which sit inside the measured interval), moving through and
// drawing the menu, and formatting a signature for display.
#include "ConsoleTestSupport.h"
#include "HexUtils.h"
#include "Menu.h"
#include "TimeTracker.h"

#include <benchmark/benchmark.h>
#include <json/json.h>

#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#ifndef TESSERA_DEFAULT_MENU
#error "TESSERA_DEFAULT_MENU must name the default menu file"
#endif

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

Json::Value defaultMenu() {
  std::ifstream file(TESSERA_DEFAULT_MENU);
  Json::CharReaderBuilder builder;
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(builder, file, &root, &errors)) {
    throw std::runtime_error("default menu does not parse: " + errors);
  }
  return root;
}

void BM_TimeTrackerStartStop(benchmark::State& state) {
  test::TimeTracker& tracker = test::TimeTracker::getInstance();
  tracker.setMode(1);
  for (auto _ : state) {
    tracker.startMeasuring();
    tracker.stopMeasuring();
    benchmark::DoNotOptimize(tracker.getElapsedTime());
  }
  test::testing::resetConsoleState();
}
BENCHMARK(BM_TimeTrackerStartStop);

void BM_MenuRedrawCached(benchmark::State& state) {
  NullBuffer sink;
  std::streambuf* original = std::cout.rdbuf(&sink);
  test::Menu menu(defaultMenu());
  menu.printCurrentPosition();
  for (auto _ : state) {
    menu.printCurrentPosition();
  }
  std::cout.rdbuf(original);
}
BENCHMARK(BM_MenuRedrawCached);

// Into the keystore API submenu and back, drawing both menus afresh.
void BM_MenuEnterAndLeave(benchmark::State& state) {
  NullBuffer sink;
  std::streambuf* original = std::cout.rdbuf(&sink);
  test::Menu menu(defaultMenu());
  for (auto _ : state) {
    benchmark::DoNotOptimize(menu.launchItem(1));
    menu.printCurrentPosition();
    benchmark::DoNotOptimize(menu.launchItem(99));
    menu.printCurrentPosition();
  }
  std::cout.rdbuf(original);
}
BENCHMARK(BM_MenuEnterAndLeave);

void BM_HexOfSignature(benchmark::State& state) {
  unsigned char signature[65];
  for (unsigned int i = 0; i < sizeof signature; ++i) {
    signature[i] = static_cast<unsigned char>(i * 37);
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(uint8_to_hex_string(signature, sizeof signature));
  }
}
BENCHMARK(BM_HexOfSignature);

}  // namespace

BENCHMARK_MAIN();
