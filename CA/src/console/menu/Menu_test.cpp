// Tests of the menu: file validation, screens, navigation and input parsing.
#include "Menu.h"

#include "ConsoleTestSupport.h"
#include "ScenarioDoubles.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using test::Menu;
using test::testData;
using test::TimeTracker;
using test::doubles::Behaviour;
using test::doubles::calls;
using test::testing::StdioCapture;
using namespace std::chrono_literals;

Json::Value parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    throw std::runtime_error("test document does not parse: " + errors);
  }
  return value;
}

// The errors the JSON library itself reports for `text`, to compare the
// menu's message with.
std::string libraryErrors(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::istringstream in(text);
  Json::Value ignored;
  std::string errors;
  EXPECT_FALSE(Json::parseFromStream(builder, in, &ignored, &errors));
  return errors;
}

std::string writeFile(const std::string& name, const std::string& text) {
  const std::string path = ::testing::TempDir() + "/" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// Builds a menu and drops it; for the cases where only the constructor's
// verdict matters.
void construct(const Json::Value& document) {
  Menu menu(document);
  (void)menu;
}

const char* const kExample = R"({
  "Keystore test": {
    "entry": {
      "Generate seed":         { "index": 1, "command": "launch_api_interface", "option": 100 },
      "Special transaction":   { "index": 2, "command": "special_transaction_test", "option": 0 },
      "Settings": {
        "index": 3,
        "entry": {
          "Data set 0":        { "index": 1, "command": "set_data_index", "option": 0 },
          "Data set 1":        { "index": 2, "command": "set_data_index", "option": 1 },
          "Account 2":         { "index": 3, "command": "set_account_index", "option": 2 },
          "Test PIN 1":        { "index": 4, "command": "set_pin_data", "option": 1 },
          "Timing on":         { "index": 5, "command": "set_time_measurement", "option": 1 },
          "Timing off":        { "index": 6, "command": "set_time_measurement", "option": 0 },
          "Back":              { "index": 9, "command": "exit" }
        }
      },
      "Quit":                  { "index": 9, "command": "exit" }
    }
  }
})";

const char* const kExampleTop =
    "\n"
    "========== Keystore test ==========\n"
    " 1: Generate seed\n"
    " 2: Special transaction\n"
    " 3: Settings\n"
    " 9: Quit\n"
    "===================================\n";

const char* const kExampleSettings =
    "\n"
    "========== 3: Settings ==========\n"
    " 1: Data set 0\n"
    " 2: Data set 1\n"
    " 3: Account 2\n"
    " 4: Test PIN 1\n"
    " 5: Timing on\n"
    " 6: Timing off\n"
    " 9: Back\n"
    "=================================\n";

class MenuTest : public ::testing::Test {
 protected:
  void SetUp() override { test::doubles::resetConsoleAndScenarios(); }
  void TearDown() override { test::doubles::resetConsoleAndScenarios(); }
};

// ---- reading the file ---------------------------------------------------------

TEST_F(MenuTest, ReadsAnObjectDocument) {
  const std::string path = writeFile("menu-ok.json", kExample);
  StdioCapture io;
  const Json::Value root = Menu::readFromFile(path);
  EXPECT_TRUE(root.isObject());
  EXPECT_TRUE(root.isMember("Keystore test"));
  EXPECT_EQ(io.take(), "");
}

TEST_F(MenuTest, RootThatIsNotAnObjectGivesNullSilently) {
  for (const char* text : {"[]", "42", "\"menu\"", "null"}) {
    const std::string path = writeFile("menu-not-object.json", text);
    StdioCapture io;
    EXPECT_TRUE(Menu::readFromFile(path).isNull()) << text;
    EXPECT_EQ(io.take(), "") << text;
  }
}

TEST_F(MenuTest, InvalidJsonIsReportedWithTheLibraryText) {
  const std::string text = "{ \"Keystore test\": { \"entry\": ";
  const std::string path = writeFile("menu-broken.json", text);
  StdioCapture io;
  EXPECT_TRUE(Menu::readFromFile(path).isNull());
  EXPECT_EQ(io.take(), "Failed to parse [" + path + "] Error: " + libraryErrors(text) + "\n");
}

TEST_F(MenuTest, MissingFileIsReportedAsEmptyInput) {
  const std::string path = ::testing::TempDir() + "/no-such-folder/menu.json";
  StdioCapture io;
  EXPECT_TRUE(Menu::readFromFile(path).isNull());
  const std::string errors = libraryErrors("");
  EXPECT_FALSE(errors.empty());
  EXPECT_EQ(io.take(), "Failed to parse [" + path + "] Error: " + errors + "\n");
}

TEST_F(MenuTest, DefaultReaderAcceptsComments) {
  const std::string path = writeFile("menu-comments.json",
                                     "// the console's menu\n{ \"T\": { /* top */ \"index\": 1 } }");
  StdioCapture io;
  EXPECT_TRUE(Menu::readFromFile(path).isObject());
}

// ---- validating the document ----------------------------------------------------

TEST_F(MenuTest, RejectsARootWithTwoMembers) {
  EXPECT_THROW(construct(parse(R"({"A": {}, "B": {}})")), int);
  try {
    Menu menu(parse(R"({"A": {}, "B": {}})"));
    FAIL() << "accepted two members";
  } catch (int code) {
    EXPECT_EQ(code, -1);
  }
}

TEST_F(MenuTest, RejectsASingleMemberThatIsNotAnObject) {
  EXPECT_THROW(construct(parse(R"({"A": "text"})")), int);
  EXPECT_THROW(construct(parse(R"({"A": 3})")), int);
  EXPECT_THROW(construct(parse(R"({"A": []})")), int);
}

TEST_F(MenuTest, RejectsEmptyNullAndNonObjectRoots) {
  EXPECT_THROW(construct(parse("{}")), int);
  EXPECT_THROW(construct(Json::Value()), int);
  EXPECT_THROW(construct(parse("[]")), int);
  EXPECT_THROW(construct(parse("[{\"A\": {}}]")), int);
}

TEST_F(MenuTest, AcceptsAnEmptyTopMenu) {
  Menu menu(parse(R"({"Empty": {}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== Empty ==========\n===========================\n");
}

// ---- the accessors --------------------------------------------------------------

TEST_F(MenuTest, IsEntryNeedsANonEmptyObject) {
  EXPECT_TRUE(Menu::isEntry(parse(R"({"entry": {"a": {}}})")));
  EXPECT_FALSE(Menu::isEntry(parse(R"({"entry": {}})")));
  EXPECT_FALSE(Menu::isEntry(parse(R"({"entry": "x"})")));
  EXPECT_FALSE(Menu::isEntry(parse(R"({"entry": ["a"]})")));
  EXPECT_FALSE(Menu::isEntry(parse(R"({"index": 1})")));
}

TEST_F(MenuTest, IndexMustBeAnIntegralNumber) {
  EXPECT_EQ(Menu::getIndex(parse(R"({"index": 2})")), 2);
  EXPECT_EQ(Menu::getIndex(parse(R"({"index": -4})")), -4);
  EXPECT_EQ(Menu::getIndex(parse(R"({"index": "2"})")), -999);
  EXPECT_EQ(Menu::getIndex(parse(R"({"index": 2.5})")), -999);
  EXPECT_EQ(Menu::getIndex(parse(R"({"index": true})")), -999);
  EXPECT_EQ(Menu::getIndex(parse(R"({"index": null})")), -999);
  EXPECT_EQ(Menu::getIndex(parse(R"({})")), -999);
}

TEST_F(MenuTest, OptionMustBeAnIntegralNumber) {
  EXPECT_EQ(Menu::getOption(parse(R"({"option": 104})")), 104);
  EXPECT_EQ(Menu::getOption(parse(R"({"option": "104"})")), -1);
  EXPECT_EQ(Menu::getOption(parse(R"({})")), -1);
}

TEST_F(MenuTest, CommandMustBeAString) {
  EXPECT_EQ(Menu::getCommand(parse(R"({"command": "exit"})")), "exit");
  EXPECT_EQ(Menu::getCommand(parse(R"({"command": 1})")), "");
  EXPECT_EQ(Menu::getCommand(parse(R"({"command": ["exit"]})")), "");
  EXPECT_EQ(Menu::getCommand(parse(R"({})")), "");
}

TEST_F(MenuTest, EnterGivesTheItemsOfANode) {
  const Json::Value withEntry = parse(R"({"index": 1, "entry": {"a": {"index": 1}}})");
  EXPECT_EQ(Menu::enter(withEntry), withEntry["entry"]);
  const Json::Value plain = parse(R"({"index": 1, "entry": {}})");
  EXPECT_EQ(Menu::enter(plain), plain);
}

TEST_F(MenuTest, ItemNameIsTheFirstInMemberOrder) {
  const Json::Value node = parse(R"({"b": {"index": 1}, "a": {"index": 1}, "c": {"index": 2}})");
  EXPECT_EQ(Menu::getCurrentItemName(node, 1), "a");
  EXPECT_EQ(Menu::getCurrentItemName(node, 2), "c");
  EXPECT_EQ(Menu::getCurrentItemName(node, 3), "");
}

// ---- display ----------------------------------------------------------------------

TEST_F(MenuTest, ShowsTheExampleMenu) {
  Menu menu(parse(kExample));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), kExampleTop);
  // Shown again unchanged.
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), kExampleTop);
}

TEST_F(MenuTest, SubmenuBannerCarriesItsIndex) {
  Menu menu(parse(kExample));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(3), 0);
  EXPECT_EQ(io.take(), "");  // entering prints nothing
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), kExampleSettings);
}

TEST_F(MenuTest, TopMenuWithAnIndexShowsIt) {
  Menu menu(parse(R"({"Top": {"index": 7, "entry": {"Only": {"index": 1}}}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== 7: Top ==========\n 1: Only\n============================\n");
}

TEST_F(MenuTest, NumbersAreRightAlignedInTwoColumns) {
  Menu menu(parse(R"({"T": {"entry": {
      "five": {"index": 5}, "ten": {"index": 10}, "hundred": {"index": 100}, "big": {"index": 123456}}}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(),
            "\n========== T ==========\n"
            " 5: five\n"
            "10: ten\n"
            "100: hundred\n"
            "123456: big\n"
            "=======================\n");
}

TEST_F(MenuTest, ItemsAreListedByNumberNotByName) {
  Menu menu(parse(R"({"T": {"entry": {"a": {"index": 3}, "b": {"index": 1}, "c": {"index": 2}}}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== T ==========\n 1: b\n 2: c\n 3: a\n=======================\n");
}

TEST_F(MenuTest, StringIndexIsNotListed) {
  Menu menu(parse(R"({"T": {"entry": {"Text index": {"index": "2", "command": "exit"},
                                       "Number": {"index": 1, "command": "exit"}}}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== T ==========\n 1: Number\n=======================\n");
  // Typing 2 does not reach it either.
  EXPECT_EQ(menu.launchItem(2), 0);
  EXPECT_EQ(io.take(), " !! 2 : wrong selection\n");
}

TEST_F(MenuTest, ZeroAndNegativeIndicesAreHiddenButChosenByNumber) {
  Menu menu(parse(R"({"T": {"entry": {
      "Zero": {"index": 0, "command": "set_data_index", "option": 1},
      "Negative": {"index": -3, "command": "set_data_index", "option": 2},
      "Shown": {"index": 1, "command": "exit"}}}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== T ==========\n 1: Shown\n=======================\n");
  EXPECT_EQ(menu.launchItem(0), 0);
  EXPECT_EQ(io.take(), " >> Zero : success\n");
  EXPECT_EQ(testData.getDataIndex(), 1u);
  EXPECT_EQ(menu.launchItem(-3), 0);
  EXPECT_EQ(io.take(), " >> Negative : success\n");
  EXPECT_EQ(testData.getDataIndex(), 2u);
}

TEST_F(MenuTest, MinusNineNineNineChoosesTheFirstItemWithoutAnIndex) {
  Menu menu(parse(R"({"T": {"entry": {
      "B no index": {"command": "set_data_index", "option": 2},
      "A text index": {"index": "5", "command": "set_data_index", "option": 1},
      "C no index": {"command": "set_data_index", "option": 3},
      "D": {"index": 1, "command": "exit"}}}})"));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(-999), 0);
  EXPECT_EQ(io.take(), " >> A text index : success\n");
  EXPECT_EQ(testData.getDataIndex(), 1u);
}

TEST_F(MenuTest, DuplicateIndexShowsTheLastNameButRunsTheFirst) {
  Menu menu(parse(R"({"T": {"entry": {
      "Alpha": {"index": 1, "command": "set_data_index", "option": 1},
      "Beta": {"index": 1, "command": "set_data_index", "option": 2}}}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== T ==========\n 1: Beta\n=======================\n");
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), " >> Alpha : success\n");
  EXPECT_EQ(testData.getDataIndex(), 1u);
}

TEST_F(MenuTest, MemberOrderIsByteOrder) {
  // Upper case sorts before lower case, so "Zed" is found before "apple".
  Menu menu(parse(R"({"T": {"entry": {
      "apple": {"index": 1, "command": "set_data_index", "option": 1},
      "Zed": {"index": 1, "command": "set_data_index", "option": 2}}}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== T ==========\n 1: apple\n=======================\n");
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), " >> Zed : success\n");
}

// ---- carrying out a choice ------------------------------------------------------

TEST_F(MenuTest, EmptyEntryMakesAPlainItemWithoutCommand) {
  Menu menu(parse(R"({"T": {"entry": {"Hollow": {"index": 1, "entry": {}}}}})"));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), " !! 1 : wrong selection\n");
  EXPECT_EQ(menu.getCurrent(), parse(R"({"entry": {"Hollow": {"index": 1, "entry": {}}}})"));
}

TEST_F(MenuTest, EmptyEntryWithACommandRunsIt) {
  Menu menu(parse(R"({"T": {"entry": {"Hollow": {"index": 1, "entry": {}, "command": "set_pin_data", "option": 2}}}})"));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), " >> Hollow : success\n");
  EXPECT_EQ(testData.getPinIndex(), 2u);
}

TEST_F(MenuTest, CommandWinsOverASubmenu) {
  const std::string doc = R"({"T": {"entry": {"Both": {"index": 1, "command": "set_account_index", "option": 3,
      "entry": {"Inner": {"index": 1, "command": "exit"}}}}}})";
  Menu menu(parse(doc));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), " >> Both : success\n");
  EXPECT_EQ(testData.getAccountIndex(), 3u);
  // Still at the top.
  EXPECT_EQ(menu.getCurrent(), parse(doc)["T"]);
}

TEST_F(MenuTest, ExplicitEntryCommandGoesDownEvenWithoutASubmenu) {
  const std::string doc = R"({"T": {"entry": {"Door": {"index": 1, "command": "entry"}}}})";
  Menu menu(parse(doc));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), "");
  EXPECT_EQ(menu.getCurrent(), parse(doc)["T"]["entry"]["Door"]);
  // Its menu is its own members; "index" and "command" are not items, so
  // nothing is listed.
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== 1: Door ==========\n=============================\n");
}

TEST_F(MenuTest, ExplicitEntryListsTheItemsOwnMembersThatCarryAnIndex) {
  const std::string doc = R"({"T": {"entry": {"Door": {"index": 1, "command": "entry",
      "Back": {"index": 9, "command": "exit"}}}}})";
  Menu menu(parse(doc));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(1), 0);
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(),
            "\n========== 1: Door ==========\n 9: Back\n=============================\n");
  EXPECT_EQ(menu.launchItem(9), 0);
  EXPECT_EQ(menu.getCurrent(), parse(doc)["T"]);
}

TEST_F(MenuTest, ExitInASubmenuGoesUpSilentlyAndTheMenuAboveIsShownAgain) {
  Menu menu(parse(kExample));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(menu.launchItem(3), 0);
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), std::string(kExampleTop) + kExampleSettings);
  EXPECT_EQ(menu.launchItem(9), 0);
  EXPECT_EQ(io.take(), "");
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), kExampleTop);
}

TEST_F(MenuTest, ExitAtTheTopLeaves) {
  Menu menu(parse(kExample));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(9), 1);
  EXPECT_EQ(io.take(), "");
}

TEST_F(MenuTest, UnknownNumberAndUnknownCommandAreWrongSelections) {
  Menu menu(parse(R"({"T": {"entry": {"Capital": {"index": 1, "command": "Exit"},
                                       "Nothing": {"index": 2}}}})"));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(menu.launchItem(2), 0);
  EXPECT_EQ(menu.launchItem(77), 0);
  EXPECT_EQ(menu.launchItem(-5), 0);
  EXPECT_EQ(io.take(),
            " !! 1 : wrong selection\n !! 2 : wrong selection\n !! 77 : wrong selection\n"
            " !! -5 : wrong selection\n");
}

TEST_F(MenuTest, ScenarioFailureAndSuccessLines) {
  Menu menu(parse(kExample));
  StdioCapture io;
  test::doubles::setApiBehaviour(Behaviour{false, -1ns, false});
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), " !! Generate seed : fail\n");
  EXPECT_EQ(menu.launchItem(2), 0);
  EXPECT_EQ(io.take(), " >> Special transaction : success\n");
  ASSERT_EQ(calls().size(), 2u);
  EXPECT_EQ(calls()[0].option, 100);
  EXPECT_EQ(calls()[1].option, 0);
}

TEST_F(MenuTest, MissingOptionArrivesAsMinusOne) {
  Menu menu(parse(R"({"T": {"entry": {"Run": {"index": 1, "command": "launch_api_interface"}}}})"));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(1), 0);
  ASSERT_EQ(calls().size(), 1u);
  EXPECT_EQ(calls()[0].option, -1);
}

TEST_F(MenuTest, ElapsedTimeComesBeforeTheResultLineWhenTimingIsOn) {
  Menu menu(parse(kExample));
  StdioCapture io;
  TimeTracker::getInstance().setMode(1);
  test::doubles::setApiBehaviour(Behaviour{true, 1234ms + 999us, false});
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), "\n ! Elapsed time: 1234 ms.\n\n >> Generate seed : success\n");
  test::doubles::setSpecialBehaviour(Behaviour{false, 7ms, false});
  EXPECT_EQ(menu.launchItem(2), 0);
  EXPECT_EQ(io.take(), "\n ! Elapsed time: 7 ms.\n\n !! Special transaction : fail\n");
}

TEST_F(MenuTest, NoTimeForCommandsThatMeasureNothing) {
  Menu menu(parse(kExample));
  StdioCapture io;
  EXPECT_EQ(menu.launchItem(3), 0);
  EXPECT_EQ(menu.launchItem(5), 0);  // Timing on
  EXPECT_EQ(io.take(), " >> Timing on : success\n");
  EXPECT_EQ(TimeTracker::getInstance().getMode(), 1);
  EXPECT_EQ(menu.launchItem(2), 0);  // a set command: nothing measured
  EXPECT_EQ(io.take(), " >> Data set 1 : success\n");
  EXPECT_EQ(testData.getDataIndex(), 1u);
}

TEST_F(MenuTest, ModeTwoNeverPrintsTheTime) {
  Menu menu(parse(kExample));
  StdioCapture io;
  TimeTracker::getInstance().setMode(2);
  test::doubles::setApiBehaviour(Behaviour{true, 50ms, false});
  EXPECT_EQ(menu.launchItem(1), 0);
  EXPECT_EQ(io.take(), " >> Generate seed : success\n");
  EXPECT_EQ(TimeTracker::getInstance().getElapsedTime(), 50u);
}

TEST_F(MenuTest, WrongSelectionNeverPrintsTheTime) {
  Menu menu(parse(kExample));
  StdioCapture io;
  TimeTracker::getInstance().setMode(1);
  test::doubles::setApiBehaviour(Behaviour{true, 3ms, false});
  EXPECT_EQ(menu.launchItem(1), 0);
  (void)io.take();
  EXPECT_EQ(menu.launchItem(4), 0);
  EXPECT_EQ(io.take(), " !! 4 : wrong selection\n");
}

TEST_F(MenuTest, ScenarioExceptionsLeaveTheMenu) {
  Menu menu(parse(kExample));
  StdioCapture io;
  test::doubles::setApiBehaviour(Behaviour{true, -1ns, true});
  EXPECT_THROW((void)menu.launchItem(1), std::runtime_error);
  EXPECT_EQ(io.take(), "");
}

TEST_F(MenuTest, MembersThatAreNotObjectsAreNeitherListedNorRunnable) {
  Menu menu(parse(R"({"T": {"entry": {"Note": "just text", "Quit": {"index": 1, "command": "exit"}}}})"));
  StdioCapture io;
  menu.printCurrentPosition();
  EXPECT_EQ(io.take(), "\n========== T ==========\n 1: Quit\n=======================\n");
  // -999 names the first member without an index: the string, which has no
  // command.
  EXPECT_EQ(menu.launchItem(-999), 0);
  EXPECT_EQ(io.take(), " !! -999 : wrong selection\n");
}

// ---- reading a choice ------------------------------------------------------------

TEST_F(MenuTest, SelectSkipsWordsWithoutALeadingNumber) {
  Menu menu(parse(kExample));
  StdioCapture io("abc -- x1 2abc");
  EXPECT_EQ(menu.selectItem(), 2);
  EXPECT_EQ(io.take(), "");  // skipping is silent
}

TEST_F(MenuTest, SelectSkipsNumbersThatDoNotFit) {
  Menu menu(parse(kExample));
  StdioCapture io("99999999999 -2147483649 2147483647 -2147483648");
  EXPECT_EQ(menu.selectItem(), 2147483647);
  EXPECT_EQ(menu.selectItem(), -2147483647 - 1);
}

TEST_F(MenuTest, SelectReadsSignsAndLeadingZeros) {
  Menu menu(parse(kExample));
  StdioCapture io("+7\n007\t-999\n\n  -0");
  EXPECT_EQ(menu.selectItem(), 7);
  EXPECT_EQ(menu.selectItem(), 7);
  EXPECT_EQ(menu.selectItem(), -999);
  EXPECT_EQ(menu.selectItem(), 0);
}

TEST_F(MenuTest, WrongSelectionShowsTheNumberAsRead) {
  Menu menu(parse(kExample));
  StdioCapture io("007x");
  EXPECT_EQ(menu.launchItem(menu.selectItem()), 0);
  EXPECT_EQ(io.take(), " !! 7 : wrong selection\n");
}

// ---- the loop ---------------------------------------------------------------------

TEST_F(MenuTest, RunUntilExitAtTheTop) {
  Menu menu(parse(kExample));
  StdioCapture io("3 hello 4 9 8 9\n");
  EXPECT_EQ(menu.run(), 1);
  EXPECT_EQ(io.take(), std::string(kExampleTop) + kExampleSettings + " >> Test PIN 1 : success\n" +
                           kExampleSettings + kExampleTop + " !! 8 : wrong selection\n" + kExampleTop);
  EXPECT_EQ(testData.getPinIndex(), 1u);
}

}  // namespace
