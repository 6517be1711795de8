#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>

namespace Fuzz {

void fail(std::string const& what) {
  std::fprintf(stderr, "fuzz property broken: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Fuzz
