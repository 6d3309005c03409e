// The menu: reading and checking the menu file, drawing the screens, and the
// input loop.
#include "Menu.h"

#include "Dispatcher.h"
#include "TimeTracker.h"

#include <json/reader.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace test {

namespace {

constexpr int kNoIndex = -999;
constexpr int kNoOption = -1;

// After an end of input the loop waits this long before reading again, so it
// neither returns nor spins.
constexpr std::chrono::milliseconds kEndOfInputPause{50};

// The members of `node` that are its items, without copying.
const Json::Value& itemsOf(const Json::Value& node) {
  return Menu::isEntry(node) ? node["entry"] : node;
}

}  // namespace

Json::Value Menu::readFromFile(const std::string& path) {
  // An unopened stream reads as empty input, which the parser rejects with
  // its own message; no separate check is needed.
  std::ifstream file(path);
  Json::CharReaderBuilder builder;
  Json::Value document;
  std::string errors;
  if (!Json::parseFromStream(builder, file, &document, &errors)) {
    std::cout << "Failed to parse [" << path << "] Error: " << errors << std::endl;
    return Json::Value();
  }
  if (!document.isObject()) {
    return Json::Value();
  }
  return document;
}

Menu::Menu(const Json::Value& document) : root(document) {
  if (!root.isObject()) {
    throw -1;
  }
  const std::vector<std::string> names = root.getMemberNames();
  if (names.size() != 1 || !root[names.front()].isObject()) {
    throw -1;
  }
  path.push_back(names.front());
}

bool Menu::isEntry(const Json::Value& node) {
  if (!node.isObject() || !node.isMember("entry")) {
    return false;
  }
  const Json::Value& entry = node["entry"];
  return entry.isObject() && !entry.getMemberNames().empty();
}

int Menu::getOption(const Json::Value& node) {
  if (node.isObject() && node.isMember("option") && node["option"].isIntegral()) {
    return node["option"].asInt();
  }
  return kNoOption;
}

std::string Menu::getCommand(const Json::Value& node) {
  if (node.isObject() && node.isMember("command") && node["command"].isString()) {
    return node["command"].asString();
  }
  return std::string();
}

int Menu::getIndex(const Json::Value& node) {
  if (node.isObject() && node.isMember("index") && node["index"].isIntegral()) {
    return node["index"].asInt();
  }
  return kNoIndex;
}

Json::Value Menu::getCurrent() const {
  // The first name looks the title up in the root; each later one descends
  // through the items of the menu above.
  const Json::Value* current = &root;
  for (const std::string& name : path) {
    current = &itemsOf(*current)[name];
  }
  return *current;
}

Json::Value Menu::enter(const Json::Value& node) { return itemsOf(node); }

std::string Menu::getCurrentItemName(const Json::Value& node, int index) {
  for (const std::string& name : node.getMemberNames()) {
    if (getIndex(node[name]) == index) {
      return name;
    }
  }
  return std::string();
}

void Menu::printCurrentPosition() {
  // Every navigation step changes the depth by one, so the depth alone tells
  // whether the cached text still shows the current menu.
  if (screenDepth != static_cast<int32_t>(path.size())) {
    const Json::Value current = getCurrent();
    std::string title;
    const int ownIndex = getIndex(current);
    if (ownIndex > 0) {
      title = std::to_string(ownIndex) + ": ";
    }
    title += path.back();
    const std::string banner = "========== " + title + " ==========";

    // Listed by number; a later name (in member order) under the same number
    // replaces an earlier one.
    const Json::Value& items = itemsOf(current);
    std::map<int, std::string> listed;
    for (const std::string& name : items.getMemberNames()) {
      const int number = getIndex(items[name]);
      if (number >= 1) {
        listed[number] = name;
      }
    }

    std::ostringstream text;
    text << banner << '\n';
    for (const auto& [number, name] : listed) {
      text << std::setw(2) << number << ": " << name << '\n';
    }
    text << std::string(banner.size(), '=');
    screen = text.str();
    screenDepth = static_cast<int32_t>(path.size());
  }
  std::cout << std::endl << screen << std::endl;
}

int Menu::selectItem() {
  for (;;) {
    std::string word;
    std::cin >> word;
    if (std::cin.fail()) {
      // Nothing was read: end of input or a stream error. Keep the stream
      // usable and wait before the next attempt instead of spinning. The C
      // stream under std::cin keeps its own end-of-file mark, which would
      // make every later read fail at once, so it is cleared too.
      std::cin.clear();
      std::clearerr(stdin);
      std::this_thread::sleep_for(kEndOfInputPause);
    }
    try {
      return std::stoi(word);
    } catch (const std::invalid_argument&) {
      // Not a number: skipped without a word.
    } catch (const std::out_of_range&) {
      // Does not fit in an int: skipped as well.
    }
  }
}

void Menu::reportWrongSelection(int index) const {
  std::cout << " !! " << index << " : wrong selection" << std::endl;
}

int Menu::launchItem(int index) {
  const Json::Value node = enter(getCurrent());
  const std::string name = getCurrentItemName(node, index);
  if (name.empty()) {
    reportWrongSelection(index);
    return 0;
  }
  const Json::Value& item = node[name];
  std::string command = getCommand(item);
  if (command.empty() && isEntry(item)) {
    command = "entry";
  }
  if (command.empty()) {
    reportWrongSelection(index);
    return 0;
  }

  switch (runCommand(command, getOption(item))) {
    case kCommandFailure:
      printElapsedTime();
      std::cout << " !! " << name << " : fail" << std::endl;
      return 0;
    case kCommandSuccess:
      printElapsedTime();
      std::cout << " >> " << name << " : success" << std::endl;
      return 0;
    case kCommandLeave:
      if (path.size() >= 2) {
        path.pop_back();
        return 0;
      }
      return 1;
    case kCommandEnter:
      path.push_back(name);
      return 0;
    default:
      reportWrongSelection(index);
      return 0;
  }
}

int Menu::run() {
  int result = 0;
  do {
    printCurrentPosition();
    result = launchItem(selectItem());
  } while (result == 0);
  return result;
}

}  // namespace test
