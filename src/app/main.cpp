// velko-headless: the velko application for machines without the desktop program.
#include "app/Application.h"

#include <string>
#include <vector>

int main(int argc, char** argv) {
  return velko::app::runApplication(std::vector<std::string>(argv + 1, argv + argc));
}
