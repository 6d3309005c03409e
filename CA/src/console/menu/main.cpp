// The console's entry point: load the menu from its one fixed place, run it,
// and turn any failure on the way into one message and exit status 255.
#include "Menu.h"

#include <iostream>
#include <string>

namespace {

// Deliberately fixed: no argument, option or environment variable moves it.
constexpr const char* kMenuFile = "/opt/data/tessera/menu.json";

}  // namespace

int main() {
  try {
    test::Menu menu(test::Menu::readFromFile(std::string(kMenuFile)));
    menu.run();
  } catch (...) {
    // Whatever escaped (the menu's -1, a JSON error, a scenario's exception),
    // the operator sees the same line and never the exception's text.
    std::cout << "Failed to process menu file [" << kMenuFile << "], exception caused" << std::endl;
    return -1;
  }
  return 0;
}
