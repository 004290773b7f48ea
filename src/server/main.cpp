#include "server/Server.h"

#include <iostream>

int main() { return velko::server::runServer(std::cin, std::cout, std::cerr); }
