#include "core/process.h"

int main() {
  return runProcess();
}
