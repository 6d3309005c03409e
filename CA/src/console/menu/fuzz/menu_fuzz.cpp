// Arbitrary menu documents and choices: the menu may throw (the entry point
// turns any exception into its failure message) but must never crash, read
// out of bounds, leak or hit undefined behaviour. The two scenarios are the
// scripted doubles (ScenarioDoubles.cpp): a fuzzed menu never reaches a
// keystore.
//
// Input: a first line of up to 32 whitespace-separated choices, then the
// document.
#include "Menu.h"

#include "ScenarioDoubles.h"
#include "TestData.h"
#include "TimeTracker.h"

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static NullBuffer sink;
  static std::streambuf* const original = std::cout.rdbuf(&sink);
  (void)original;

  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string::size_type newline = input.find('\n');
  const std::string firstLine = input.substr(0, newline);
  const std::string document = newline == std::string::npos ? std::string() : input.substr(newline + 1);

  std::vector<int> choices;
  std::istringstream words(firstLine);
  std::string word;
  while (choices.size() < 32 && words >> word) {
    try {
      choices.push_back(std::stoi(word));
    } catch (const std::exception&) {
    }
  }

  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  if (!reader->parse(document.data(), document.data() + document.size(), &root, &errors)) {
    return 0;
  }

  try {
    test::Menu menu(root);
    for (int choice : choices) {
      menu.printCurrentPosition();
      if (menu.launchItem(choice) != 0) {
        break;
      }
    }
  } catch (...) {
    // The entry point's catch-all handles these in the program.
  }

  // Commands may have moved the process-wide settings; start the next input
  // from the program's start state.
  test::testData = test::TestData();
  test::TimeTracker::getInstance().reset();
  test::TimeTracker::getInstance().setMode(0);
  test::doubles::resetScenarios();
  return 0;
}
