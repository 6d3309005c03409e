// The console's menu, built from the JSON menu file, and its input loop.
#ifndef TESSERA_CONSOLE_MENU_H
#define TESSERA_CONSOLE_MENU_H

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace test {

/* The console's interactive menu, defined by a JSON document.
 *
 * Document: an object with exactly one member, whose name is the top menu's
 * title and whose value (an object) is the top node. In a node:
 *   "entry"   object with at least one member: the node is a submenu and
 *             these members are its items (member name = item text);
 *   "index"   integral number: the item's number; only 1 and above are listed;
 *   "command" string: what choosing the item runs (see runCommand);
 *   "option"  integral number: the command's one argument.
 * A key of another type counts as missing. Members are always walked in the
 * order the JSON library gives their names: ascending byte order.
 *
 * The loop shows the current menu, reads a number from standard input and
 * acts on it; everything is written to standard output, each line flushed.
 * Errors of the JSON library while walking the tree (a string where an object
 * is expected, say) and exceptions of commands are not caught here; the
 * program's entry point reports them. */
class Menu {
 public:
  /* Reads and parses a menu document with the JSON library's default reader
   * settings.
   *
   * Returns: the root when it parsed and is an object; a null value when it
   *          parsed but is not an object (silently), or when it did not parse,
   *          after writing "Failed to parse [<path>] Error: <the library's
   *          error text>" and a newline. An unreadable file parses as empty
   *          input and so takes the second road. Nothing is thrown for a bad
   *          file.
   * In:      path: the file to read. */
  [[nodiscard]] static Json::Value readFromFile(const std::string& path);

  /* Takes a private copy of the document and starts at the top menu.
   *
   * Throws:  the int -1 (a bare int, not an exception class) when the
   *          document is not an object with exactly one member whose value is
   *          an object. A null value from a failed read is rejected so.
   * In:      root: the document. */
  explicit Menu(const Json::Value& root);

  /* The accessors through which all menu code reads a node. A node that is
   * not an object (a number, a string) has no keys: it yields the defaults,
   * so such members are never listed and choosing one is a wrong selection. */

  /* Returns: true exactly when `node` has an "entry" that is an object with
   *          at least one member. */
  [[nodiscard]] static bool isEntry(const Json::Value& node);
  /* Returns: "option" as int when present and integral, else -1. */
  [[nodiscard]] static int getOption(const Json::Value& node);
  /* Returns: "command" when present and a string, else "". */
  [[nodiscard]] static std::string getCommand(const Json::Value& node);
  /* Returns: "index" as int when present and integral, else -999. */
  [[nodiscard]] static int getIndex(const Json::Value& node);

  /* Returns: a copy of the node of the current menu, found by descending
   *          from the root along the navigation path. */
  [[nodiscard]] Json::Value getCurrent() const;

  /* Returns: the "entry" object of `node` when isEntry(node), else a copy of
   *          `node` itself: the object whose members are the node's items. */
  [[nodiscard]] static Json::Value enter(const Json::Value& node);

  /* Returns: the name of the first member of `node` (in member-name order)
   *          whose getIndex equals `index`; "" when there is none. */
  [[nodiscard]] static std::string getCurrentItemName(const Json::Value& node, int index);

  /* Writes an empty line, the current menu and a newline. The menu text
   * (banner "========== [<index>: ]<title> ==========", one line per listed
   * item, a closing rule of "=" as long as the banner) is rendered again only
   * when the depth of the navigation path changed since the last time. */
  void printCurrentPosition();

  /* Reads whitespace-delimited words from standard input until one begins
   * with a decimal number that fits in an int (as std::stoi reads it, so
   * "2abc" gives 2), skipping others without a word.
   *
   * Returns: that number. It does not return at end of input: it waits and
   *          tries again, so a terminal that gets more input after an end of
   *          file still works. */
  [[nodiscard]] int selectItem();

  /* Carries out the choice `index` in the current menu: runs the item's
   * command (an item with a submenu and no command runs "entry") and prints
   * the outcome, enters a submenu, or goes up a level.
   *
   * Returns: 1 when "exit" was chosen at the top menu (leave the loop);
   *          0 otherwise. */
  [[nodiscard]] int launchItem(int index);

  /* Shows the menu and carries out choices until the top menu is left.
   * Returns: 1. */
  int run();

 private:
  void reportWrongSelection(int index) const;

  Json::Value root;
  std::vector<std::string> path;  // top menu's title first; never empty
  std::string screen;             // rendered text of the current menu
  int32_t screenDepth = 0;        // path length when `screen` was rendered
};

}  // namespace test

#endif  // TESSERA_CONSOLE_MENU_H
