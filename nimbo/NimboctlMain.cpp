#include <iostream>

#include "nimbo/Nimboctl.h"

int main(int argc, char** argv) {
   return static_cast<int>(Nimbo::runNimboctl(argc, argv, std::cout, std::cerr));
}
