// keelcli: gathers the client's logs and diagnostic output into a bundle.
#include "tools/KEEL/KEELCLI/keelcli.h"

int main(int argc, char** argv) {
  return keelMain(argc, argv);
}
