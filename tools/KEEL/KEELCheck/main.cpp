// keelcheck: checks keelcli's instruction files as keelcli reads them.
#include <iostream>
#include <string>
#include <vector>

#include "tools/KEEL/KEELCheck/KeelCheck.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  // The folder keelcli beside this program reads, found from the program's
  // real path, so that a link to it elsewhere still leads here.
  return keelcheck::RunKeelCheck(args, helperUtil::getConfigFolder(), std::cout, std::cerr);
}
