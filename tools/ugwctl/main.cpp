// The entry of ugwctl.
#include "tools/ugwctl/App.h"

int main(int argc, char* argv[]) {
    return ugwctl::run(argc, argv);
}
