// main.cpp - the analyticsdb command-line tool.
#include <iostream>
#include <unistd.h>

#include "cli.h"

int main(int argc, char **argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  return adbtool::runTool(args, std::cout, std::cerr, isatty(STDOUT_FILENO) != 0);
}
