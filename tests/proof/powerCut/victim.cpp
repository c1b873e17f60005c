// Does one operation of operations.h: powerCut_victim OPERATION NUMBER

#include <cstdlib>

#include "operations.h"

int main(int argc, char* argv[]) {
  const operations::Operation* const operation = argc == 3 ? operations::find(argv[1]) : nullptr;
  if (operation == nullptr) return 2;
  return operation->run(std::atoi(argv[2])) ? 0 : 1;
}
